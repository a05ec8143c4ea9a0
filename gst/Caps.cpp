#include "gst/Caps.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace LorunGst {

namespace {

void SetIntRange(GstStructure* structure, const char* field, const LorunClient::FeatureTree::IntegerRange& range)
{
    const std::int64_t lowest = std::max<std::int64_t>(range.min, 1);
    const std::int64_t highest = std::min<std::int64_t>(range.max, INT_MAX);
    const std::int64_t step = std::max<std::int64_t>(range.increment, 1);
    GValue value = G_VALUE_INIT;
    if (lowest >= highest) {
        g_value_init(&value, G_TYPE_INT);
        g_value_set_int(&value, static_cast<gint>(lowest));
    } else {
        g_value_init(&value, GST_TYPE_INT_RANGE);
        // A range's ends must be multiples of its step.
        const std::int64_t top = lowest + (highest - lowest) / step * step;
        if (lowest % step == 0 && top % step == 0)
            gst_value_set_int_range_step(&value, static_cast<gint>(lowest), static_cast<gint>(top),
                                         static_cast<gint>(step));
        else
            gst_value_set_int_range(&value, static_cast<gint>(lowest), static_cast<gint>(top));
    }
    gst_structure_take_value(structure, field, &value);
}

void SetFrameRateRange(GstStructure* structure, const CameraModes& modes)
{
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_FRACTION_RANGE);
    if (modes.hasFrameRate && modes.frameRate.max >= modes.frameRate.min && modes.frameRate.min >= 0) {
        gint minN = 0, minD = 1, maxN = 0, maxD = 1;
        gst_util_double_to_fraction(modes.frameRate.min, &minN, &minD);
        gst_util_double_to_fraction(modes.frameRate.max, &maxN, &maxD);
        gst_value_set_fraction_range_full(&value, minN, minD, maxN, maxD);
    } else {
        gst_value_set_fraction_range_full(&value, 0, 1, G_MAXINT, 1);
    }
    gst_structure_take_value(structure, "framerate", &value);
}

}

GstCaps* TemplateCaps()
{
    GstCaps* caps = gst_caps_new_empty();
    for (const char* media : {"video/x-raw", "video/x-bayer"}) {
        GValue list = G_VALUE_INIT;
        g_value_init(&list, GST_TYPE_LIST);
        std::vector<std::string> seen;
        for (const PixelFormat& format : PixelFormats()) {
            if (std::strcmp(format.mediaType, media) != 0 ||
                std::find(seen.begin(), seen.end(), format.gstFormat) != seen.end())
                continue;
            seen.emplace_back(format.gstFormat);
            GValue entry = G_VALUE_INIT;
            g_value_init(&entry, G_TYPE_STRING);
            g_value_set_string(&entry, format.gstFormat);
            gst_value_list_append_and_take_value(&list, &entry);
        }
        GstStructure* structure = gst_structure_new(media, "width", GST_TYPE_INT_RANGE, 1, G_MAXINT, "height",
                                                    GST_TYPE_INT_RANGE, 1, G_MAXINT, "framerate",
                                                    GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
        gst_structure_take_value(structure, "format", &list);
        gst_caps_append_structure(caps, structure);
    }
    return caps;
}

CameraModes ReadModes(LorunClient::FeatureTree& features)
{
    CameraModes modes;
    const std::string current = features.Get("PixelFormat");
    for (const std::string& name : features.Entries("PixelFormat"))
        if (const PixelFormat* format = PixelFormatByName(name))
            modes.formats.insert(name == current ? modes.formats.begin() : modes.formats.end(), format);
    modes.width = features.IntegerRangeOf("Width");
    modes.height = features.IntegerRangeOf("Height");
    modes.currentWidth = std::stoll(features.Get("Width"));
    modes.currentHeight = std::stoll(features.Get("Height"));
    if (features.Writable("AcquisitionFrameRate")) {
        modes.hasFrameRate = true;
        modes.frameRate = features.FloatRangeOf("AcquisitionFrameRate");
        modes.currentFrameRate = std::stod(features.Get("AcquisitionFrameRate"));
    }
    return modes;
}

GstCaps* CapsOfModes(const CameraModes& modes)
{
    GstCaps* caps = gst_caps_new_empty();
    for (const PixelFormat* format : modes.formats) {
        GstStructure* structure = gst_structure_new(format->mediaType, "format", G_TYPE_STRING, format->gstFormat,
                                                    "pixel-format", G_TYPE_STRING, format->genicamName, nullptr);
        SetIntRange(structure, "width", modes.width);
        SetIntRange(structure, "height", modes.height);
        SetFrameRateRange(structure, modes);
        gst_caps_append_structure(caps, structure);
    }
    return caps;
}

GstCaps* FixateToCurrent(GstCaps* caps, const CameraModes& modes)
{
    caps = gst_caps_make_writable(caps);
    caps = gst_caps_truncate(caps);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    gst_structure_fixate_field_nearest_int(structure, "width", static_cast<int>(modes.currentWidth));
    gst_structure_fixate_field_nearest_int(structure, "height", static_cast<int>(modes.currentHeight));
    gint rateN = 0, rateD = 1;
    if (modes.hasFrameRate && modes.currentFrameRate > 0)
        gst_util_double_to_fraction(modes.currentFrameRate, &rateN, &rateD);
    gst_structure_fixate_field_nearest_fraction(structure, "framerate", rateN, rateD);
    return gst_caps_fixate(caps);
}

bool ChoiceOfCaps(const GstCaps* caps, const CameraModes& modes, CapsChoice& choice)
{
    if (!caps || gst_caps_get_size(caps) < 1)
        return false;
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    const char* media = gst_structure_get_name(structure);
    const char* format = gst_structure_get_string(structure, "format");
    const char* genicam = gst_structure_get_string(structure, "pixel-format");
    if (!format || !gst_structure_get_int(structure, "width", &choice.width) ||
        !gst_structure_get_int(structure, "height", &choice.height))
        return false;
    choice.format = nullptr;
    // The camera's order puts its current format first: an ambiguous
    // GRAY16_LE keeps what the camera sends now.
    for (const PixelFormat* candidate : modes.formats)
        if (std::strcmp(candidate->mediaType, media) == 0 && std::strcmp(candidate->gstFormat, format) == 0 &&
            (!genicam || std::strcmp(candidate->genicamName, genicam) == 0)) {
            choice.format = candidate;
            break;
        }
    if (!choice.format)
        return false;
    choice.rateNumerator = 0;
    choice.rateDenominator = 1;
    gst_structure_get_fraction(structure, "framerate", &choice.rateNumerator, &choice.rateDenominator);
    return true;
}

}
