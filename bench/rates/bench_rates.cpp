// Downloads a file on several threads at once that share one rate, as the transfers of a transfer window do.
// Prints "bytes seconds".
//
//   bench_rates HOST PORT USER PASSWORD PATH THREADS KBIT SECONDS
//
// KBIT: of all threads together, 0 for no pacing. Each thread repeats the download until SECONDS have passed;
// the bytes are those of the bodies that came in that time.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "kelcore/http/client.h"

namespace {

using Clock = std::chrono::steady_clock;

/// A fixed rate, divided among the running transfers.
class FixedRate final : public HttpBandwidthManager {
  public:
    explicit FixedRate(unsigned long kilobits) : kilobits_(kilobits) {}

    int StartTransmission() override {
        ++running_;
        return kFrame;
    }
    void EndTransmission() override { --running_; }
    unsigned long GetRate(int& frameSize) override {
        frameSize = kFrame;
        return kilobits_ / std::max(running_.load(), 1U);
    }
    bool BandwidthIsLimited() override { return kilobits_ != 0; }
    int GetFrameSize() override { return kFrame; }
    bool IsPercentage() override { return false; }
    bool IsPerThousand() override { return false; }
    unsigned long BandwidthEstimationTCP(IpAddress const&, unsigned int, unsigned int) override { return 0; }
    bool GetClientCount(bool, unsigned int&, unsigned int&, unsigned long&, unsigned long&,
                        unsigned int&) override {
        return false;
    }

  private:
    static constexpr int kFrame = 1400;
    const unsigned long kilobits_;
    std::atomic<unsigned int> running_ = 0;
};

struct Server {
    KelString host;
    std::uint16_t port = 0;
    KelString user;
    KelString password;
    KelString path;
};

/// Downloads until `end`; the bytes that came.
std::uint64_t Download(const Server& server, HttpBandwidthManager& rate, Clock::time_point end, int number) {
    HttpClient client;
    client.SetServer(server.host, server.port);
    client.SetAuthentification(server.user, server.password);
    client.SetCancelCheck([end] { return Clock::now() >= end; });
    HttpMessage request;
    request.SetResourcePath(server.path);
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("bench_rates" + std::to_string(number));
    HttpFileMessage answer;
    answer.SetBodyFile(file.native());
    std::uint64_t bytes = 0;
    while (Clock::now() < end) {
        HttpManagedTransmission transmission(rate);
        const unsigned int result = client.SendAndRecv(request, answer, transmission);
        if (result != kHttpCompleted && result != kHttpCutOff) {
            std::cerr << "bench_rates: " << client.GetErrorText() << "\n";
            std::exit(1);
        }
        std::error_code none;
        const auto size = std::filesystem::file_size(file, none);
        if (!none) bytes += size;
        std::filesystem::remove(file, none);
    }
    return bytes;
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 9) {
        std::cerr << "usage: bench_rates HOST PORT USER PASSWORD PATH THREADS KBIT SECONDS\n";
        return 2;
    }
    const Server server{arguments[1], static_cast<std::uint16_t>(std::stoul(arguments[2])), arguments[3],
                        arguments[4], arguments[5]};
    const int threads = std::stoi(arguments[6]);
    FixedRate rate(std::stoul(arguments[7]));
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(std::stod(arguments[8])));
    std::atomic<std::uint64_t> bytes = 0;
    {
        std::vector<std::jthread> workers;
        for (int i = 0; i < threads; ++i)
            workers.emplace_back([&, i] { bytes += Download(server, rate, end, i); });
    }
    std::cout << bytes << " " << std::chrono::duration<double>(Clock::now() - begin).count() << "\n";
}
