#include "modules/CSILibrary.h"
#include "entry/CSITransportLayer.h"

#include <gtest/gtest.h>

using namespace QEL;

namespace {

std::string Text(const Base::InfoPtr& info)
{
    auto s = std::dynamic_pointer_cast<const Base::StringInfo>(info);
    return s ? s->GetValue() : "<not a string>";
}

TEST(CSILibrary, SystemInfoFromTheSettings)
{
    auto settings = std::make_shared<Settings>("/opt/x/lorun.cti");
    CSI::Library library(settings);
    EXPECT_EQ("7B0CEC30-6004-4F2D-9697-CD515749CBC6", Text(library.GetInfo(TL_INFO_ID)));
    EXPECT_EQ("Lorun CSI-2 GenTL", Text(library.GetInfo(TL_INFO_MODEL)));
    EXPECT_EQ("lorun.cti", Text(library.GetInfo(TL_INFO_NAME)));
    EXPECT_EQ("/opt/x/lorun.cti", Text(library.GetInfo(TL_INFO_PATHNAME)));
    EXPECT_EQ("CSI-2", Text(library.GetInfo(TL_INFO_CUSTOM_ID)));
    INFO_DATATYPE type = 0;
    EXPECT_EQ(4u, library.GetInfoSize(TL_INFO_GENTL_VER_MAJOR, &type));
    EXPECT_EQ(INFO_DATATYPE_UINT32, type);
    EXPECT_EQ(7u, library.GetInfoSize(TL_INFO_TLTYPE, nullptr));

    try {
        library.GetInfo(TL_INFO_CUSTOM_ID + 1);
        FAIL();
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, e.GetCode());
        EXPECT_EQ("Unsupported info requested.", e.GetText());
    }
    library.Close();
    EXPECT_FALSE(library.IsOpen());
    try {
        library.GetInfo(TL_INFO_ID);
        FAIL();
    } catch (const Base::Exception& e) {
        EXPECT_EQ(GC_ERR_NOT_INITIALIZED, e.GetCode());
        EXPECT_EQ("Library not open.", e.GetText());
    }
    EXPECT_THROW(CSI::Library(nullptr), Base::Exception);
}

TEST(CSITransportLayer, LibraryGetsACopyOfTheSettingsWithTheInitFlags)
{
    CSI::TransportLayer tl("/nonexistent/folder/lorun.cti");
    auto library = tl.CreateLibrary(1);
    ASSERT_TRUE(library);
    EXPECT_FALSE(tl.GetSettings()->GetDynamicBufferHandling()) << "only the library's copy records the flag";
    EXPECT_EQ(GC_ERR_SUCCESS, tl.GCInitLibEx(3));
    INFO_DATATYPE type = 0;
    size_t size = 0;
    EXPECT_EQ(GC_ERR_SUCCESS, tl.GCGetInfo(TL_INFO_VERSION, &type, nullptr, &size));
    EXPECT_EQ(6u, size);
    EXPECT_EQ(GC_ERR_SUCCESS, tl.GCCloseLib());
}

}
