#include "gst/FeatureObject.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

namespace LorunGst {

namespace {

using Feature = LorunClient::FeatureTree::Feature;
using Kind = LorunClient::FeatureTree::Kind;

struct FeatureObject {
    GObject parent;
    FeatureAccess* access;
};

struct FeatureObjectClass {
    GObjectClass parent;
    std::vector<Feature>* features; // by property id - 1; lives as long as the type, for ever
};

// GObject property names: a letter, then letters, digits, '-' or '_'.
bool UsableName(const std::string& name)
{
    if (name.empty() || !g_ascii_isalpha(name[0]))
        return false;
    for (char c : name)
        if (!g_ascii_isalnum(c) && c != '-' && c != '_')
            return false;
    return name.find('_') == std::string::npos; // GObject would turn it into '-'
}

const Feature& FeatureOf(GObject* object, guint id)
{
    auto* klass = reinterpret_cast<FeatureObjectClass*>(G_OBJECT_GET_CLASS(object));
    return (*klass->features)[id - 1];
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec*)
{
    auto* self = reinterpret_cast<FeatureObject*>(object);
    const Feature& feature = FeatureOf(object, id);
    std::string text;
    switch (feature.kind) {
    case Kind::Integer: text = std::to_string(g_value_get_int64(value)); break;
    case Kind::Float: {
        gchar buffer[G_ASCII_DTOSTR_BUF_SIZE];
        text = g_ascii_dtostr(buffer, sizeof buffer, g_value_get_double(value));
        break;
    }
    case Kind::Boolean: text = g_value_get_boolean(value) ? "true" : "false"; break;
    case Kind::Command:
        if (g_value_get_boolean(value) && self->access && self->access->execute)
            self->access->execute(feature.name);
        return;
    case Kind::Enumeration:
    case Kind::String: {
        const gchar* given = g_value_get_string(value);
        text = given ? given : "";
        break;
    }
    }
    if (self->access && self->access->set)
        self->access->set(feature.name, text);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec*)
{
    auto* self = reinterpret_cast<FeatureObject*>(object);
    const Feature& feature = FeatureOf(object, id);
    if (feature.kind == Kind::Command || !self->access || !self->access->get)
        return;
    std::string text;
    try {
        text = self->access->get(feature.name);
    } catch (const std::exception&) {
        return; // unreadable now: the default stays
    }
    switch (feature.kind) {
    case Kind::Integer: g_value_set_int64(value, g_ascii_strtoll(text.c_str(), nullptr, 0)); break;
    case Kind::Float: g_value_set_double(value, g_ascii_strtod(text.c_str(), nullptr)); break;
    case Kind::Boolean: g_value_set_boolean(value, text == "true" || text == "1"); break;
    case Kind::Enumeration:
    case Kind::String: g_value_set_string(value, text.c_str()); break;
    case Kind::Command: break;
    }
}

void Finalize(GObject* object)
{
    auto* self = reinterpret_cast<FeatureObject*>(object);
    delete self->access;
    self->access = nullptr;
    G_OBJECT_CLASS(g_type_class_peek_parent(G_OBJECT_GET_CLASS(object)))->finalize(object);
}

void ClassInit(gpointer klassPointer, gpointer data)
{
    auto* klass = static_cast<FeatureObjectClass*>(klassPointer);
    auto* objectClass = G_OBJECT_CLASS(klassPointer);
    objectClass->set_property = SetProperty;
    objectClass->get_property = GetProperty;
    objectClass->finalize = Finalize;
    klass->features = static_cast<std::vector<Feature>*>(data);
    guint id = 0;
    for (const Feature& feature : *klass->features) {
        ++id;
        const char* name = feature.name.c_str();
        const char* blurb = feature.description.c_str();
        // Names and blurbs are the type's for ever: no copies needed.
        const auto flags = static_cast<GParamFlags>(G_PARAM_STATIC_STRINGS | G_PARAM_READABLE |
                                                    (feature.writable ? G_PARAM_WRITABLE : 0));
        GParamSpec* property = nullptr;
        switch (feature.kind) {
        case Kind::Integer: property = g_param_spec_int64(name, name, blurb, G_MININT64, G_MAXINT64, 0, flags); break;
        case Kind::Float: property = g_param_spec_double(name, name, blurb, -G_MAXDOUBLE, G_MAXDOUBLE, 0, flags); break;
        case Kind::Boolean: property = g_param_spec_boolean(name, name, blurb, FALSE, flags); break;
        case Kind::Command:
            property = g_param_spec_boolean(name, name, blurb, FALSE,
                                        static_cast<GParamFlags>(G_PARAM_STATIC_STRINGS | G_PARAM_WRITABLE));
            break;
        case Kind::Enumeration:
        case Kind::String: property = g_param_spec_string(name, name, blurb, "", flags); break;
        }
        g_object_class_install_property(objectClass, id, property);
    }
}

void InstanceInit(GTypeInstance* instance, gpointer)
{
    reinterpret_cast<FeatureObject*>(instance)->access = nullptr;
}

GType TypeOf(const std::string& module, const std::vector<Feature>& all)
{
    auto usable = std::make_unique<std::vector<Feature>>();
    std::string key = module;
    for (const Feature& feature : all)
        if (UsableName(feature.name)) {
            usable->push_back(feature);
            key += "|" + feature.name + ":" + std::to_string(static_cast<int>(feature.kind)) +
                   (feature.writable ? "w" : "r");
        }
    static std::mutex mutex;
    static std::map<std::string, GType> types;
    const std::lock_guard<std::mutex> lock(mutex);
    auto known = types.find(key);
    if (known != types.end())
        return known->second;
    const std::string name = "LorunFeatures" + module + std::to_string(types.size());
    GTypeInfo info{};
    info.class_size = sizeof(FeatureObjectClass);
    info.class_init = ClassInit;
    info.class_data = usable.release(); // the type's for ever
    info.instance_size = sizeof(FeatureObject);
    info.instance_init = InstanceInit;
    const GType type = g_type_register_static(G_TYPE_OBJECT, name.c_str(), &info, static_cast<GTypeFlags>(0));
    types[key] = type;
    return type;
}

}

GObject* NewFeatureObject(const std::string& module, const std::vector<LorunClient::FeatureTree::Feature>& features,
                          FeatureAccess access)
{
    GObject* object = G_OBJECT(g_object_new(TypeOf(module, features), nullptr));
    reinterpret_cast<FeatureObject*>(object)->access = new FeatureAccess(std::move(access));
    return object;
}

}
