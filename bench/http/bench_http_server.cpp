// Runs the HTTP module alone on a free loopback port: bench_http_server ROOT FILES. ROOT receives a config
// folder, FILES is published as "/Files". Prints the port, then serves until standard input ends.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "modules/http_protocol/http_protocol.h"

namespace {

bool Run(HttpProtocol& module, KelModuleOperation operation) {
    char handle[kModuleTextBytes] = "HttpProtocol";
    return module.Run(static_cast<unsigned int>(operation), 0, handle) == kModuleSuccess;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::cerr << "usage: bench_http_server ROOT FILES\n";
        return 2;
    }
    const std::filesystem::path root = arguments[1];
    std::filesystem::create_directories(root / "config");
    KelAgentConfigure({(root / "config").string() + "/", (root / "data").string() + "/", "bench",
                       "bench-password", "127.0.0.1", nullptr});
    HttpProtocol module;
    if (!Run(module, KelModuleOperation::Register) || !Run(module, KelModuleOperation::Initialise)) return 1;
    Run(module, KelModuleOperation::Activate);
    KelContainer alias;
    alias.SetString("AliasName", "Files");
    alias.SetString("AliasPath", arguments[2]);
    if (CallLocal("HttpProtocolAddAlias", alias) != 0) return 1;
    std::cout << module.Port() << std::endl;
    std::string line;
    while (std::getline(std::cin, line))
        continue;
    Run(module, KelModuleOperation::Cleanup);
    return 0;
}
