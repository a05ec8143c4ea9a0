#pragma once

// The caps of a camera: what its GenApi document allows now (pixel formats,
// width and height with their steps, the frame-rate range) as GstCaps, and
// back from the negotiated caps to the settings to write.
#include "client/FeatureTree.h"
#include "gst/PixelFormats.h"

#include <gst/gst.h>

#include <vector>

namespace LorunGst {

// Every format the element can produce, whatever the camera: the pad template.
GstCaps* TemplateCaps();

struct CameraModes {
    std::vector<const PixelFormat*> formats; // the camera's, that map, the current one first
    LorunClient::FeatureTree::IntegerRange width{}, height{};
    bool hasFrameRate = false; // AcquisitionFrameRate is writable
    LorunClient::FeatureTree::FloatRange frameRate{};
    // What the camera is set to now, for fixation.
    std::int64_t currentWidth = 0, currentHeight = 0;
    double currentFrameRate = 0;
};

// Reads the modes through the camera's document.
CameraModes ReadModes(LorunClient::FeatureTree& features);
// One structure per format (with the GenICam name as field "pixel-format"),
// the current format first.
GstCaps* CapsOfModes(const CameraModes& modes);
// Prefers the camera's current width, height and frame rate.
GstCaps* FixateToCurrent(GstCaps* caps, const CameraModes& modes);

struct CapsChoice {
    const PixelFormat* format = nullptr;
    std::int32_t width = 0, height = 0;
    std::int32_t rateNumerator = 0, rateDenominator = 1; // 0/1: free running
};
// The settings fixed caps ask for; false when they name nothing the camera offers.
bool ChoiceOfCaps(const GstCaps* caps, const CameraModes& modes, CapsChoice& choice);

}
