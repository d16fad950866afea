#pragma once

#include <gtest/gtest.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "http_test_client.h"
#include "kel/file.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "modules/http_protocol/http_protocol.h"

/// The module, running on a free loopback port with the aliases "Files" and, taking uploads, "Files/in".
class HttpServerFixture : public testing::Test {
  protected:
    static constexpr char kHandle[] = "HttpProtocol";

    void SetUp() override {
        root = std::filesystem::path(testing::TempDir()) / ("http_server_" + std::to_string(::getpid()));
        std::filesystem::remove_all(root);
        std::filesystem::create_directories(root / "config");
        std::filesystem::create_directories(root / "files/in");
        KelAgentConfigure({(root / "config").string() + "/", (root / "data").string() + "/", "tree", "secret",
                           "127.0.0.1", nullptr});
    }
    void TearDown() override {
        Stop();
        ActionDbUnregisterAll(kHandle);
        ActionDbUnregisterAll("test");
        module.reset();
        std::filesystem::remove_all(root);
    }

    void Start(const std::string& settings = {}) {
        std::ofstream(root / "config/HttpProtocol.ini") << "[HttpProtocol]\n"
                                                        << settings << "\n[Aliases]\nWritable=Files/in\n";
        module = std::make_unique<HttpProtocol>();
        char handle[256] = "HttpProtocol";
        ASSERT_EQ(Run(KelModuleOperation::Register, handle), kModuleSuccess);
        ASSERT_EQ(Run(KelModuleOperation::Initialise), kModuleSuccess);
        ASSERT_EQ(Run(KelModuleOperation::Activate), kModuleSuccess);
        AddAlias("Files", root / "files");
        AddAlias("Files/in", root / "files/in");
    }
    void Stop() {
        if (module) Run(KelModuleOperation::Cleanup);
    }
    unsigned int Run(KelModuleOperation operation, char* buffer = nullptr) {
        return module->Run(static_cast<unsigned int>(operation), 0, buffer);
    }
    static void AddAlias(const std::string& name, const std::filesystem::path& path) {
        KelContainer container;
        container.SetString("AliasName", name);
        container.SetString("AliasPath", path.string());
        ASSERT_EQ(ActionDbInvokeLocal("HttpProtocolAddAlias", container), 0U);
    }
    void WriteFile(const std::string& name, const std::string& content) const {
        std::ofstream(root / "files" / name, std::ios::binary) << content;
    }
    std::string ReadFile(const std::string& name) const {
        std::ifstream file(root / "files" / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::size_t CountFilesIn(const std::string& folder) const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(root / "files" / folder), {}));
    }
    HttpTestClient Connect() const { return HttpTestClient(module->Port()); }

    std::filesystem::path root;
    std::unique_ptr<HttpProtocol> module;
};

/// Bytes whose every position shows an offset that is wrong.
inline std::string PatternBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + (i >> 8) * 7) & 0xFF);
    return bytes;
}
