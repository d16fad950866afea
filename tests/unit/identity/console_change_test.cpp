#include "module_fixture.h"
#include "modules/identity/identity.h"

namespace {

using ConsoleChangeTest = ModuleFixture;

TEST_F(ConsoleChangeTest, IdentityIsSentAgainToANewConsoleOnly) {
    FakeValues("RelayGetValues ()", {"Role=master"});
    FakeValues("HttpProtocolGetParams ()", {"Port=1610"});
    FakeFileStore();
    WriteIni("Identity", "[Identity]\nIPAddress=127.0.3.1\n");
    RunningModule<Identity> module;
    std::size_t sent = 0;
    for (const auto& [id, result, reports] :
         {std::tuple("first", 0U, 1U), {"first", 0U, 0U}, {"second", 0U, 1U}, {"", 1U, 0U}}) {
        EXPECT_EQ(Call("IdentitySetConsole", Values({std::string("ConsoleId=") + id})), result);
        module->ReportIdentity(1800000000);
        EXPECT_EQ(OfferCount() - sent, reports) << id;
        sent = OfferCount();
    }
    EXPECT_EQ(Contents().back().GetString("ConsoleId"), "second");
    EXPECT_EQ(Call("IdentityGetValues").GetContainer("Values").GetString("ConsoleId"), "second");
    EXPECT_EQ(Call("IdentitySetConsole", From(Values({"ConsoleId=third"}), "127.0.3.2")), 1U);
}

}  // namespace
