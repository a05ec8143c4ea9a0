#pragma once

// A module's GenApi document as a consumer sees it, evaluated by Aravis'
// GenICam implementation over the module's GenTL port.
#include "client/GenTLProducer.h"

#include <arv.h>

#include <memory>
#include <ostream>
#include <cstdint>
#include <string>
#include <vector>

namespace LorunClient {

class FeatureTree {
public:
    FeatureTree(GenTLProducer& producer, PORT_HANDLE port);
    ~FeatureTree();
    FeatureTree(const FeatureTree&) = delete;
    FeatureTree& operator=(const FeatureTree&) = delete;

    // The tree under Root, indented by category: name, value, access mode,
    // unit. Features above Guru visibility only with `all`.
    void Print(std::ostream& out, bool all);
    bool Has(const std::string& name);
    std::string Get(const std::string& name);
    void Set(const std::string& name, const std::string& value);
    void Execute(const std::string& name);
    // Whether the feature exists, is available and can be written now.
    bool Writable(const std::string& name);

    struct IntegerRange {
        std::int64_t min, max, increment;
    };
    struct FloatRange {
        double min, max;
    };
    IntegerRange IntegerRangeOf(const std::string& name);
    FloatRange FloatRangeOf(const std::string& name);
    // The entries of an enumeration that are available now.
    std::vector<std::string> Entries(const std::string& name);

    enum class Kind { Integer, Float, Boolean, Enumeration, String, Command };
    struct Feature {
        std::string name;
        Kind kind;
        std::string description;
        bool writable; // by its access mode now
    };
    // Every feature under Root with a value or an action, in the document's
    // order, each once; categories and nodes of other kinds left out.
    std::vector<Feature> Features();

private:
    struct Failure {
        GC_ERROR code = GC_ERR_SUCCESS;
        std::string text;
    };
    ArvGcFeatureNode* Node(const std::string& name);
    // Throws for a set GError, naming the feature and the producer's own error.
    void Raise(const std::string& name, GError* error);
    void PrintCategory(std::ostream& out, const std::string& name, int depth, bool all);
    void CollectFeatures(const std::string& category, int depth, std::vector<Feature>& into);

    GenTLProducer& producer;
    std::shared_ptr<Failure> lastFailure = std::make_shared<Failure>();
    ArvDevice* device = nullptr;
    ArvGc* genicam = nullptr;
};

// The document a port's first URL names: "local:" (read from the port),
// "file:"; a zipped document is unpacked.
std::string ReadPortDocument(GenTLProducer& producer, PORT_HANDLE port);

}
