#pragma once

// A module's GenApi features as the properties of a GObject, so that a
// pipeline sets them as lorunsrc's child properties: cam::ExposureTime=5000.
// One GType per document (the same document, the same type); every property
// reads and writes through `access`, as text the document's evaluator parses.
#include "client/FeatureTree.h"

#include <glib-object.h>

#include <functional>
#include <string>
#include <vector>

namespace LorunGst {

struct FeatureAccess {
    // Each may throw; a failed get leaves the property's default.
    std::function<std::string(const std::string& name)> get;
    std::function<void(const std::string& name, const std::string& value)> set;
    std::function<void(const std::string& name)> execute; // a command set to TRUE
};

// A new object (a floating-free reference for the caller) whose properties are
// the `features` that a GObject property can carry.
GObject* NewFeatureObject(const std::string& module, const std::vector<LorunClient::FeatureTree::Feature>& features,
                          FeatureAccess access);

}
