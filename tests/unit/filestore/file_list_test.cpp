#include "filestore/file_store_fixture.h"

namespace {

struct FileList : StoreTest {
    FileList() {
        // By pairs equal in type, label and name: their order is that of checksum and number.
        for (const char* name : {"b", "a", "b", "c", "a"})
            AddFile(kDown, name, "AVAILABLE", "FileChecksum = 'x'");
        AddFile(kDown, "d", "TOBEREQUESTED");
        AddFile(kDown, "e", "OBSOLETE");
    }

    static KelString Ids(const KelContainer& list) {
        KelString ids;
        for (std::uint32_t i = 0; list.Has("Values") && i < list.Count("Values"); ++i)
            ids += list.GetContainer("Values", i).GetString("FileId");
        return ids;
    }
};

TEST_F(FileList, PartsFitTogetherAndKnowTheWhole) {
    for (const auto& [values, ids] : Table<KelContainer, const char*>{
             {KelContainer(), "251346"},
             {Make({{"Limit", 2}}), "25"},
             {Make({{"Offset", 2}, {"Limit", 2}}), "13"},
             {Make({{"Offset", 4}, {"Limit", 9}}), "46"},
             {Make({{"Offset", 6}}), ""},
             {Make({{"Limit", 0}}), ""},
             {Make({{"SortAttr", "TransferredData"}}), "251346"},
             {Make({{"Limit", "5000000000"}}), "251346"},
             {Make({{"SortAttr", "FileStatus"}, {"SortOrder", "DESC"}, {"Limit", 3}}), "612"}}) {
        SCOPED_TRACE(values.SaveToXML());
        const KelContainer list = Ask("FileStoreListFiles", values);
        EXPECT_EQ(Ids(list), ids);
        EXPECT_EQ(list.GetInt64("TotalCount"), 6);
    }
    for (const char* name : {"Offset", "Limit"})
        Ask("FileStoreListFiles", Make({{name, -1}}), kKelErrorBadInput);
    for (const auto& [name, value] :
         {std::pair("SortAttr", "FileName; DROP TABLE Files"), {"SortOrder", "ASC, FileId"}})
        Ask("FileStoreListFiles", Make({{name, value}}), kKelErrorBadInput);
}

TEST_F(FileList, CountsByStatusNeedNoList) {
    AddFile(kUp, "up", "TOBEUPLOADED");
    const KelContainer down = Ask("FileStoreListFiles", Make({{"CountsOnly", true}}));
    EXPECT_FALSE(down.Has("Values"));
    EXPECT_EQ(down.GetContainer("Counts").GetNameCount(), 2U);
    EXPECT_EQ(down.GetContainer("Counts").GetInt32(filestore::kStatusAvailable), 5);
    EXPECT_EQ(down.GetContainer("Counts").GetInt32(filestore::kStatusToBeRequested), 1);
    const KelContainer up = Ask("FileStoreListFiles", Make({{"CountsOnly", true}, {"ListUpstream", true}}));
    EXPECT_EQ(up.GetInt64("TotalCount"), 1);
    EXPECT_EQ(up.GetContainer("Counts").GetInt32(filestore::kStatusToBeUploaded), 1);
}

}  // namespace
