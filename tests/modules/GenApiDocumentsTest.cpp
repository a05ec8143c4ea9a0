// The GenApi documents compiled into the producer, loaded by an independent
// GenApi implementation (Aravis' GenICam evaluator).
#include "support/EmbeddedDocuments.h"

#include <arv.h>
#include <gtest/gtest.h>

namespace {

struct Document {
    const char* name;
    const unsigned char* data;
    std::size_t size;
    const char* port;
};

TEST(GenApiDocuments, EmbeddedDocumentsLoadInAravis)
{
    using namespace QEL::Embedded;
    const Document documents[] = {
        {"System", SystemXML, SystemXML_size, "TLPort"},
        {"Interface", InterfaceXML, InterfaceXML_size, "InterfacePort"},
        {"Device", DeviceXML, DeviceXML_size, "DevicePort"},
        {"DataStream", DataStreamXML, DataStreamXML_size, "StreamPort"},
    };
    for (const Document& document : documents) {
        SCOPED_TRACE(document.name);
        ArvGc* genicam = arv_gc_new(nullptr, document.data, document.size);
        ASSERT_NE(nullptr, genicam);
        EXPECT_TRUE(ARV_IS_GC_CATEGORY(arv_gc_get_node(genicam, "Root")));
        EXPECT_TRUE(ARV_IS_GC_PORT(arv_gc_get_node(genicam, document.port)));
        EXPECT_EQ(nullptr, arv_gc_get_node(genicam, "NoSuchNode"));
        g_object_unref(genicam);
    }
}

}
