// One end of a multicast transfer, driven by multicast.py with lines on standard input:
//
//   bench_multicast send LOCAL GROUP PORT BLOCK FILE KBITS     KBITS: rate in kbit/s
//       "send [RANGE...]"   sends all blocks, or those of the ranges ("3-5", "9"); answers the bytes on the
//       wire
//   bench_multicast receive LOCAL GROUP PORT BLOCK FILE SIZE MD5
//       "ask"               answers "completed" (all is there and has the right checksum), "failed" or the
//       missing ranges "missing"           the same without waiting for the checksum; "verifying" when
//       nothing is missing
//
//   bench_multicast code BLOCK
//       prints the processor time, in seconds for each GiB, of computing the codes of blocks and of their MD5
//
// "usage" answers user and system seconds and the peak of memory in KiB. Both answer "ready" at first.
#include <sys/resource.h>
#include <csignal>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>

#include "kel/checksum.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/http/rate_queue.h"
#include "kelcore/multicast/sender.h"
#include "modules/http_protocol/multicast_receiver.h"

namespace {

constexpr const char* kUrl = "/FileStore/downstream/Package/label/0123456789abcdef0123456789abcdef/file.bin";
constexpr const char* kPassword = "bench-password";

struct Arguments {
    KelString local;
    KelString group;
    std::uint16_t port;
    std::uint32_t block;
    KelString file;
};

/// In KiB. The value of getrusage counts the process before exec, too.
std::string PeakOfMemory() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    status >> word;
    return word;
}

std::string Usage() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    std::ostringstream text;
    text << static_cast<double>(used.ru_utime.tv_sec) + static_cast<double>(used.ru_utime.tv_usec) / 1e6
         << ' '
         << static_cast<double>(used.ru_stime.tv_sec) + static_cast<double>(used.ru_stime.tv_usec) / 1e6
         << ' ' << PeakOfMemory();
    return text.str();
}

std::set<std::uint32_t> ReadBlocks(std::istream& words) {
    std::set<std::uint32_t> blocks;
    for (std::string range; words >> range;) {
        const auto ends = SplitText(range, '-');
        for (auto block = *ParseUint64(ends.front()); block <= *ParseUint64(ends.back()); ++block)
            blocks.insert(blocks.end(), static_cast<std::uint32_t>(block));
    }
    return blocks;
}

class Sender {
  public:
    Sender(const Arguments& arguments, std::uint64_t kbits) : arguments_(arguments), kbits_(kbits) {
        message_.SetResourcePath(kUrl);
        message_.SetBodyFile(arguments.file);
        if (!sender_.Open({arguments.group, arguments.port, 1, kPassword, {arguments.local}})) std::exit(1);
    }

    std::string Send(const std::set<std::uint32_t>& blocks) {
        std::uint64_t sent = 0;
        HttpRateQueue queue;
        queue.Join(HttpRateQueue::Clock::now());
        queue.SetRate(kbits_ * 1000, HttpRateQueue::Clock::now());
        const unsigned int result = sender_.Send(message_, arguments_.block, blocks, [&](std::size_t bytes) {
            sent += bytes;
            const auto now = HttpRateQueue::Clock::now();
            std::this_thread::sleep_for(queue.Remaining(queue.Add(bytes, now), now));
            return true;
        });
        return result == 0 ? std::to_string(sent) : "failed";
    }

  private:
    const Arguments arguments_;
    const std::uint64_t kbits_;
    HttpFileMessage message_;
    MulticastSender sender_;
};

class Receiver {
  public:
    Receiver(const Arguments& arguments, std::uint64_t size, const KelString& checksum)
        : group_{arguments.group, arguments.port},
          receiver_({arguments.local, 600, 16}, aliases_, log_) {
        KelString folder, name, message;
        SplitPath(arguments.file, folder, name);
        aliases_.Add("Files", folder);
        if (receiver_.Start(
                {{arguments.group, arguments.port, kUrl, size}, arguments.block, arguments.file, checksum},
                message) != 0) {
            std::cerr << message << "\n";
            std::exit(1);
        }
    }
    ~Receiver() { receiver_.Stop(); }

    std::string Ask(std::chrono::seconds patience) {
        KelContainer answer;
        receiver_.Report(group_, true, patience, answer);
        if (answer.GetBool("IsCompleted")) return "completed";
        if (answer.GetBool("RestartNeeded")) return "failed";
        const bool isHeard = !answer.GetBool("CommunicationFailed");
        std::string text;
        for (int i = 0; answer.Has(std::to_string(i)); ++i)
            text += answer.GetString(std::to_string(i)) + " ";
        return !text.empty() ? text : isHeard ? "verifying" : "failed";
    }

  private:
    const kelhttp::MulticastReceiver::Group group_;
    const KelDebug log_{"Bench", "Bench"};
    kelhttp::AliasTable aliases_;
    kelhttp::MulticastReceiver receiver_;
};

/// Of the calling thread, for each GiB, when `work` does 64 MiB.
template <class Work>
double SecondsPerGib(Work work) {
    const auto now = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double start = now();
    work();
    return (now() - start) * 16;
}

int MeasureCodes(std::uint64_t block) {
    const KelString content(64 << 20, 'x');
    const MulticastKey key(kPassword, {"239.1.1.1", 1500, kUrl, content.size()});
    char mixed = 0;
    const double codes = SecondsPerGib([&] {
        for (std::size_t offset = 0; offset < content.size(); offset += block)
            mixed = static_cast<char>(mixed ^
                                      key.CodeOf(offset, std::string_view(content).substr(offset, block))[0]);
    });
    const double digest = SecondsPerGib([&] { mixed = static_cast<char>(mixed ^ TextMd5(content)[0]); });
    std::cout << codes << ' ' << digest << ' ' << int{mixed} << std::endl;
    return 0;
}

template <class End, class Answer>
int Serve(End& end, Answer answer) {
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        std::cout << (verb == "usage" ? Usage() : answer(end, verb, words)) << std::endl;
    }
    return 0;
}

}  // namespace

int main(int count, char** values) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> texts(values, values + count);
    const auto number = [&texts](std::size_t index) { return ParseUint64(texts.at(index)).value(); };
    if (texts.at(1) == "code") return MeasureCodes(number(2));
    const Arguments arguments{texts.at(2), texts.at(3), static_cast<std::uint16_t>(number(4)),
                              static_cast<std::uint32_t>(number(5)), texts.at(6)};
    KelAgentConfigure({"", "", "bench", kPassword, arguments.local,
                       MakeDebugContext("", 0, 0, true, KelDebugLevel::Print)});
    if (texts.at(1) == "send") {
        Sender sender(arguments, number(7));
        return Serve(sender, [](Sender& end, const std::string&, std::istream& words) {
            return end.Send(ReadBlocks(words));
        });
    }
    Receiver receiver(arguments, number(7), texts.at(8));
    return Serve(receiver, [](Receiver& end, const std::string& verb, std::istream&) {
        return end.Ask(std::chrono::seconds(verb == "ask" ? 30 : 0));
    });
}
