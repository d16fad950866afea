#include "kelcore/module.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

class SampleModule : public KelModule {
  public:
    SampleModule() : KelModule("Sample", "Sample module") {}

    KelString did;
    bool works = true;
    bool throws = false;
    std::optional<KelString> serverAddress;

  protected:
    void Register(const char* handle) override { Do(KelString("register ") + handle); }
    bool Initialise() override { return Do("initialise"); }
    bool Activate() override { return Do("activate"); }
    bool Suspend() override { return Do("suspend"); }
    std::optional<KelString> ServerAddress() const override { return serverAddress; }
    void Cleanup() override { Do("cleanup"); }
    void Unregister() override { Do("unregister"); }

  private:
    bool Do(const KelString& what) {
        did = what;
        if (throws) throw std::runtime_error("broken");
        return works;
    }
};

TEST(Module, OperationsReachTheirFunctions) {
    const std::tuple<unsigned int, const char*, unsigned int> cases[] = {
        {1, "register Handle", 1}, {2, "unregister", 1}, {3, "initialise", 1},
        {4, "activate", 1},        {5, "cleanup", 1},    {8, "", 5},
        {9, "suspend", 1},         {10, "", 5},          {0, "", 5}};
    for (const auto& [operation, did, result] : cases) {
        char buffer[kModuleTextBytes] = "Handle";
        SampleModule module;
        EXPECT_EQ(module.Run(operation, 0, buffer), result) << operation;
        EXPECT_EQ(module.did, did) << operation;
        module.throws = true;
        EXPECT_EQ(module.Run(operation, 0, buffer), module.did.empty() ? result : kModuleFailure)
            << operation;
    }
    SampleModule module;
    module.works = false;
    for (const unsigned int operation : {3, 4, 9})
        EXPECT_EQ(module.Run(operation, 0, nullptr), kModuleFailure);
    EXPECT_EQ(module.Run(1, 0, nullptr), kModuleFailure);
}

TEST(Module, TextsAreCutToTheirBuffer) {
    char buffer[kModuleTextBytes];
    SampleModule module;
    module.serverAddress = "10.0.0.1:80";
    EXPECT_EQ(module.Run(10, 0, buffer), kModuleSuccess);
    EXPECT_STREQ(buffer, "10.0.0.1:80");
    KelModuleSetText(buffer, KelString(1000, 'x'));
    EXPECT_EQ(KelString(buffer), KelString(kModuleTextBytes - 1, 'x'));
    EXPECT_EQ(SampleModule().Run(6, 0, buffer), kModuleSuccess);
    EXPECT_STREQ(buffer, "Sample module");
}

}  // namespace
