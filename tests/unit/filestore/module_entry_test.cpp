// The entry function is not among the module's objects: it belongs to the shared library alone.
#include "filestore/module_main.cpp"

#include "filestore/file_store_fixture.h"

namespace {

using ModuleEntry = FileStoreTest;

TEST_F(ModuleEntry, AnswersTexts) {
    char buffer[kModuleTextBytes];
    EXPECT_EQ(ModuleMain(6, 0, buffer), 1U);
    EXPECT_STREQ(buffer, "File store module");
    EXPECT_EQ(ModuleMain(7, 0, buffer), 1U);
    EXPECT_STREQ(buffer, "11.5.0.121004r - Oct  4 2012 - 17:21:12");
}

TEST_F(ModuleEntry, RefusesUnknownOperations) {
    for (const unsigned int operation : {0U, 8U, 10U, 4096U})
        EXPECT_EQ(ModuleMain(operation, 0, nullptr), 5U);
    EXPECT_EQ(ModuleMain(9, 0, nullptr), 1U);
}

TEST_F(ModuleEntry, DrivesALifeAndASecondOne) {
    char handle[] = "FileStore";
    for (int life = 0; life < 2; ++life) {
        EXPECT_EQ(ModuleMain(1, 0, handle), 1U);
        EXPECT_EQ(ModuleMain(3, 0, nullptr), 1U);
        EXPECT_EQ(ModuleMain(4, 0, nullptr), 1U);
        KelContainer arguments;
        EXPECT_EQ(Call("FileStoreGetDeviceUrl", arguments), 0U);
        EXPECT_EQ(arguments.GetString("DeviceUrl"), KelFormat("%s:%d/%s", kAddress, kPort, kGuid));
        EXPECT_EQ(ModuleMain(5, 0, nullptr), 1U);
        EXPECT_EQ(ModuleMain(2, 0, nullptr), 1U);
    }
}

}  // namespace
