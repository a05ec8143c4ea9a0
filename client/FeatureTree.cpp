#include "client/FeatureTree.h"

#include "client/AravisPortDevice.h"

#include <fstream>
#include <iomanip>
#include <regex>
#include <sstream>

namespace LorunClient {

namespace {

constexpr std::uint64_t MaxDocumentSize = 64u << 20;

std::string Unzip(const std::string& data, const std::string& name)
{
    ArvZip* zip = arv_zip_new(data.data(), data.size());
    if (!zip)
        throw ProducerError(GC_ERR_ERROR, "The document " + name + " is no zip file.");
    std::string document;
    for (const GSList* file = arv_zip_get_file_list(zip); file; file = file->next) {
        const char* inside = arv_zip_file_get_name(static_cast<ArvZipFile*>(file->data));
        if (!inside || !g_str_has_suffix(inside, ".xml"))
            continue;
        size_t size = 0;
        if (void* bytes = arv_zip_get_file(zip, inside, &size)) {
            document.assign(static_cast<const char*>(bytes), size);
            g_free(bytes);
        }
        break;
    }
    arv_zip_free(zip);
    if (document.empty())
        throw ProducerError(GC_ERR_ERROR, "The zip file " + name + " holds no XML document.");
    return document;
}

}

std::string ReadPortDocument(GenTLProducer& producer, PORT_HANDLE port)
{
    uint32_t count = 0;
    producer.Check(producer.GCGetNumPortURLs(port, &count), "GCGetNumPortURLs");
    if (count == 0)
        throw ProducerError(GC_ERR_NOT_AVAILABLE, "The module has no GenApi document.");
    const std::string url = TextOf(producer, "GCGetPortURLInfo", [&](char* text, size_t* size) {
        INFO_DATATYPE type = 0;
        return producer.GCGetPortURLInfo(port, 0, URL_INFO_URL, &type, text, size);
    });
    std::smatch match;
    std::string name, data;
    if (std::regex_search(url, match, std::regex("^[Ll]ocal:(///)?([^;]+);([0-9A-Fa-f]+);([0-9A-Fa-f]+)"))) {
        name = match[2];
        const std::uint64_t address = std::stoull(match[3], nullptr, 16);
        const std::uint64_t length = std::stoull(match[4], nullptr, 16);
        if (length == 0 || length > MaxDocumentSize)
            throw ProducerError(GC_ERR_ERROR, "The document's URL gives an unusable length: " + url);
        data.assign(length, '\0');
        size_t size = length;
        producer.Check(producer.GCReadPort(port, address, &data[0], &size), "Reading the document " + name);
        data.resize(size);
    } else if (std::regex_search(url, match, std::regex("^[Ff]ile:(//)?([^?]+)"))) {
        name = match[2];
        std::ifstream file(name, std::ios::binary);
        if (!file)
            throw ProducerError(GC_ERR_ERROR, "Could not read the document " + name + ".");
        std::ostringstream text;
        text << file.rdbuf();
        data = text.str();
    } else {
        throw ProducerError(GC_ERR_NOT_IMPLEMENTED, "Documents at URLs like " + url + " are not supported.");
    }
    if (g_str_has_suffix(name.c_str(), ".zip") || g_str_has_suffix(name.c_str(), ".ZIP"))
        return Unzip(data, name);
    return data;
}

FeatureTree::FeatureTree(GenTLProducer& gentl, PORT_HANDLE port) : producer(gentl)
{
    const std::string document = ReadPortDocument(producer, port);
    auto failure = lastFailure;
    auto access = [&gentl, port, failure](bool write) {
        return [&gentl, port, failure, write](std::uint64_t address, std::uint32_t size, void* buffer) {
            size_t done = size;
            const GC_ERROR rc = write ? gentl.GCWritePort(port, address, buffer, &done)
                                      : gentl.GCReadPort(port, address, buffer, &done);
            if (rc != GC_ERR_SUCCESS) {
                failure->code = rc;
                failure->text = gentl.LastError();
            }
            return rc == GC_ERR_SUCCESS && done == size;
        };
    };
    device = NewPortDevice({access(false), access(true)});
    genicam = arv_gc_new(device, document.data(), document.size());
    if (!genicam || !arv_gc_get_node(genicam, "Root")) {
        if (genicam)
            g_object_unref(genicam);
        g_object_unref(device);
        throw ProducerError(GC_ERR_ERROR, "The module's GenApi document could not be loaded.");
    }
}

FeatureTree::~FeatureTree()
{
    g_object_unref(genicam);
    g_object_unref(device);
}

void FeatureTree::Raise(const std::string& name, GError* error)
{
    std::string text = name + ": " + (error && error->message ? error->message : "failed");
    GC_ERROR code = GC_ERR_ERROR;
    if (lastFailure->code != GC_ERR_SUCCESS) {
        text += " (producer error " + std::to_string(lastFailure->code) + ", " + lastFailure->text + ")";
        code = lastFailure->code;
    }
    if (error)
        g_error_free(error);
    *lastFailure = Failure{};
    throw ProducerError(code, text);
}

ArvGcFeatureNode* FeatureTree::Node(const std::string& name)
{
    ArvGcNode* node = arv_gc_get_node(genicam, name.c_str());
    if (!node || !ARV_IS_GC_FEATURE_NODE(node))
        throw UsageError("no feature '" + name + "' in the module's document");
    return ARV_GC_FEATURE_NODE(node);
}

bool FeatureTree::Has(const std::string& name)
{
    ArvGcNode* node = arv_gc_get_node(genicam, name.c_str());
    return node && ARV_IS_GC_FEATURE_NODE(node);
}

std::string FeatureTree::Get(const std::string& name)
{
    ArvGcFeatureNode* feature = Node(name);
    if (ARV_IS_GC_CATEGORY(feature) || ARV_IS_GC_COMMAND(feature))
        throw UsageError("'" + name + "' has no value");
    *lastFailure = Failure{};
    GError* error = nullptr;
    const char* value = arv_gc_feature_node_get_value_as_string(feature, &error);
    if (error || !value)
        Raise(name, error);
    return value;
}

void FeatureTree::Set(const std::string& name, const std::string& value)
{
    ArvGcFeatureNode* feature = Node(name);
    const ArvGcAccessMode mode = arv_gc_feature_node_get_actual_access_mode(feature);
    if (mode == ARV_GC_ACCESS_MODE_RO)
        throw ProducerError(GC_ERR_ACCESS_DENIED, name + " is read-only.");
    *lastFailure = Failure{};
    GError* error = nullptr;
    arv_gc_feature_node_set_value_from_string(feature, value.c_str(), &error);
    if (error)
        Raise(name, error);
}

void FeatureTree::Execute(const std::string& name)
{
    ArvGcFeatureNode* feature = Node(name);
    if (!ARV_IS_GC_COMMAND(feature))
        throw UsageError("'" + name + "' is no command");
    *lastFailure = Failure{};
    GError* error = nullptr;
    arv_gc_command_execute(ARV_GC_COMMAND(feature), &error);
    if (error)
        Raise(name, error);
}

bool FeatureTree::Writable(const std::string& name)
{
    if (!Has(name))
        return false;
    ArvGcFeatureNode* feature = Node(name);
    GError* error = nullptr;
    const bool available = arv_gc_feature_node_is_available(feature, &error);
    g_clear_error(&error);
    const ArvGcAccessMode mode = arv_gc_feature_node_get_actual_access_mode(feature);
    return available && (mode == ARV_GC_ACCESS_MODE_RW || mode == ARV_GC_ACCESS_MODE_WO);
}

FeatureTree::IntegerRange FeatureTree::IntegerRangeOf(const std::string& name)
{
    ArvGcFeatureNode* feature = Node(name);
    if (!ARV_IS_GC_INTEGER(feature))
        throw UsageError("'" + name + "' is no integer");
    *lastFailure = Failure{};
    GError* error = nullptr;
    IntegerRange range{};
    range.min = arv_gc_integer_get_min(ARV_GC_INTEGER(feature), &error);
    if (!error)
        range.max = arv_gc_integer_get_max(ARV_GC_INTEGER(feature), &error);
    if (!error)
        range.increment = arv_gc_integer_get_inc(ARV_GC_INTEGER(feature), &error);
    if (error)
        Raise(name, error);
    return range;
}

FeatureTree::FloatRange FeatureTree::FloatRangeOf(const std::string& name)
{
    ArvGcFeatureNode* feature = Node(name);
    if (!ARV_IS_GC_FLOAT(feature))
        throw UsageError("'" + name + "' is no float");
    *lastFailure = Failure{};
    GError* error = nullptr;
    FloatRange range{};
    range.min = arv_gc_float_get_min(ARV_GC_FLOAT(feature), &error);
    if (!error)
        range.max = arv_gc_float_get_max(ARV_GC_FLOAT(feature), &error);
    if (error)
        Raise(name, error);
    return range;
}

std::vector<std::string> FeatureTree::Entries(const std::string& name)
{
    ArvGcFeatureNode* feature = Node(name);
    if (!ARV_IS_GC_ENUMERATION(feature))
        throw UsageError("'" + name + "' is no enumeration");
    *lastFailure = Failure{};
    GError* error = nullptr;
    guint count = 0;
    const char** values = arv_gc_enumeration_dup_available_string_values(ARV_GC_ENUMERATION(feature), &count, &error);
    if (error) {
        g_free(values);
        Raise(name, error);
    }
    std::vector<std::string> entries;
    for (guint i = 0; values && i < count; ++i)
        entries.emplace_back(values[i]);
    g_free(values);
    return entries;
}

std::vector<FeatureTree::Feature> FeatureTree::Features()
{
    std::vector<Feature> features;
    CollectFeatures("Root", 0, features);
    return features;
}

void FeatureTree::CollectFeatures(const std::string& category, int depth, std::vector<Feature>& into)
{
    constexpr int MaxDepth = 32; // a document whose categories loop must not loop us
    ArvGcNode* node = arv_gc_get_node(genicam, category.c_str());
    if (depth > MaxDepth || !node || !ARV_IS_GC_CATEGORY(node))
        return;
    for (const GSList* entry = arv_gc_category_get_features(ARV_GC_CATEGORY(node)); entry; entry = entry->next) {
        const std::string name = static_cast<const char*>(entry->data);
        ArvGcNode* child = arv_gc_get_node(genicam, name.c_str());
        if (!child || !ARV_IS_GC_FEATURE_NODE(child))
            continue;
        if (ARV_IS_GC_CATEGORY(child)) {
            CollectFeatures(name, depth + 1, into);
            continue;
        }
        Kind kind;
        if (ARV_IS_GC_COMMAND(child))
            kind = Kind::Command;
        else if (ARV_IS_GC_ENUMERATION(child))
            kind = Kind::Enumeration;
        else if (ARV_IS_GC_BOOLEAN(child))
            kind = Kind::Boolean;
        else if (ARV_IS_GC_FLOAT(child))
            kind = Kind::Float;
        else if (ARV_IS_GC_INTEGER(child))
            kind = Kind::Integer;
        else if (ARV_IS_GC_STRING(child))
            kind = Kind::String;
        else
            continue;
        bool seen = false;
        for (const Feature& feature : into)
            seen |= feature.name == name;
        if (seen)
            continue;
        ArvGcFeatureNode* feature = ARV_GC_FEATURE_NODE(child);
        const char* description = arv_gc_feature_node_get_description(feature);
        if (!description)
            description = arv_gc_feature_node_get_tooltip(feature);
        const ArvGcAccessMode mode = arv_gc_feature_node_get_actual_access_mode(feature);
        into.push_back({name, kind, description ? description : name,
                        mode == ARV_GC_ACCESS_MODE_RW || mode == ARV_GC_ACCESS_MODE_WO});
    }
}

void FeatureTree::Print(std::ostream& out, bool all) { PrintCategory(out, "Root", 0, all); }

void FeatureTree::PrintCategory(std::ostream& out, const std::string& name, int depth, bool all)
{
    ArvGcNode* node = arv_gc_get_node(genicam, name.c_str());
    if (!node || !ARV_IS_GC_CATEGORY(node))
        return;
    for (const GSList* entry = arv_gc_category_get_features(ARV_GC_CATEGORY(node)); entry; entry = entry->next) {
        const std::string child = static_cast<const char*>(entry->data);
        ArvGcNode* childNode = arv_gc_get_node(genicam, child.c_str());
        if (!childNode || !ARV_IS_GC_FEATURE_NODE(childNode))
            continue;
        ArvGcFeatureNode* feature = ARV_GC_FEATURE_NODE(childNode);
        const ArvGcVisibility visibility = arv_gc_feature_node_get_visibility(feature);
        if (!all && (visibility == ARV_GC_VISIBILITY_INVISIBLE || visibility == ARV_GC_VISIBILITY_GURU))
            continue;
        GError* error = nullptr;
        const bool implemented = arv_gc_feature_node_is_implemented(feature, &error);
        g_clear_error(&error);
        if (!implemented && !all)
            continue;
        const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
        if (ARV_IS_GC_CATEGORY(childNode)) {
            out << indent << child << "\n";
            PrintCategory(out, child, depth + 1, all);
            continue;
        }
        std::string value, access, unit;
        const bool available = arv_gc_feature_node_is_available(feature, &error);
        g_clear_error(&error);
        switch (arv_gc_feature_node_get_actual_access_mode(feature)) {
        case ARV_GC_ACCESS_MODE_RO: access = "RO"; break;
        case ARV_GC_ACCESS_MODE_WO: access = "WO"; break;
        case ARV_GC_ACCESS_MODE_RW: access = "RW"; break;
        default: access = "--"; break;
        }
        if (!available) {
            value = "(not available)";
            access = "NA";
        } else if (ARV_IS_GC_COMMAND(childNode)) {
            value = "(command)";
        } else {
            const char* text = arv_gc_feature_node_get_value_as_string(feature, &error);
            value = error ? std::string("(error: ") + error->message + ")" : text ? text : "";
            g_clear_error(&error);
        }
        if (ARV_IS_GC_FLOAT(childNode)) {
            if (const char* u = arv_gc_float_get_unit(ARV_GC_FLOAT(childNode)))
                unit = u;
        } else if (ARV_IS_GC_INTEGER(childNode)) {
            if (const char* u = arv_gc_integer_get_unit(ARV_GC_INTEGER(childNode)))
                unit = u;
        }
        std::ostringstream line;
        line << indent << child;
        out << std::left << std::setw(44) << line.str() << " " << std::setw(4) << access << " " << value;
        if (!unit.empty())
            out << " " << unit;
        out << "\n";
    }
}

}
