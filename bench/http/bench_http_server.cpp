// Runs the HTTP module alone on a free loopback port: bench_http_server ROOT FILES [keys]. ROOT receives a
// config folder, FILES is published as "/Files". Prints the port, then serves until standard input ends. With
// "keys", the device belongs to a tree with keys; the folder ROOT/keys receives authority.pem and, with their
// keys (…_key.pem), server.pem and client.pem, the certificate of the master.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/keys/authority.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/security.h"
#include "modules/http_protocol/http_protocol.h"

namespace {

bool Run(HttpProtocol& module, KelModuleOperation operation) {
    char handle[kModuleTextBytes] = "HttpProtocol";
    return module.Run(static_cast<unsigned int>(operation), 0, handle) == kModuleSuccess;
}

void Write(const std::filesystem::path& path, const KelResult<KelString>& text) {
    std::ofstream(path) << *text;
}

void MakeKeys(const std::filesystem::path& root) {
    const std::filesystem::path folder = root / "keys";
    std::filesystem::create_directories(folder);
    KelAuthority authority(KelString((root / "authority").string()));
    const std::int64_t now = std::time(nullptr);
    if (!authority.Create(now) || !authority.Open()) std::exit(1);
    Write(folder / "authority.pem", authority.Certificate().ToPem());
    const auto issue = [&](const char* name, const KelDeviceIdentity& device) {
        const KelKeyPair key = *KelKeyPair::Make();
        const KelCertificate certificate = *authority.Issue(key.Get(), device, now);
        Write(folder / (std::string(name) + ".pem"), certificate.ToPem());
        Write(folder / (std::string(name) + "_key.pem"), key.ToPem());
        return KelKeyRing::Parts{key, device, certificate, authority.Certificate(), {}, "00", {}};
    };
    issue("client", {"ABCD0000-0000-0000-0000-000000000001", KelDeviceRole::Master});
    AgentSecuritySetKeys(
        *KelKeyRing::Make(issue("server", {"ABCD0000-0000-0000-0000-000000000002", KelDeviceRole::Relay})));
}

}  // namespace

int main(int count, char** arguments) {
    const bool hasKeys = count == 4 && std::string(arguments[3]) == "keys";
    if (count != 3 && !hasKeys) {
        std::cerr << "usage: bench_http_server ROOT FILES [keys]\n";
        return 2;
    }
    const std::filesystem::path root = arguments[1];
    std::filesystem::create_directories(root / "config");
    KelAgentConfigure({(root / "config").string() + "/", (root / "data").string() + "/", "bench",
                       "bench-password", "127.0.0.1", nullptr});
    std::signal(SIGPIPE, SIG_IGN);
    if (hasKeys) MakeKeys(root);
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
