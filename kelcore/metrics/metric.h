#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>

/// A number that only grows, from 0 at the start of the process. Any thread; adding takes no lock.
class KelCounter {
  public:
    void Add(std::uint64_t count = 1) { value_.fetch_add(count, std::memory_order_relaxed); }
    std::uint64_t Value() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> value_ = 0;
};

/// How often something was done, and how long it has taken in all. As KelCounter.
class KelDurations {
  public:
    using Clock = std::chrono::steady_clock;

    void Add(Clock::duration time) {
        count_.Add();
        nanoseconds_.Add(
            static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count()));
    }
    std::uint64_t Count() const { return count_.Value(); }
    double Seconds() const { return static_cast<double>(nanoseconds_.Value()) / 1e9; }

  private:
    KelCounter count_, nanoseconds_;
};

/// Adds the time from its construction to its destruction.
class KelStopwatch {
  public:
    explicit KelStopwatch(KelDurations& durations) : durations_(durations) {}
    ~KelStopwatch() { durations_.Add(KelDurations::Clock::now() - begin_); }
    KelStopwatch(const KelStopwatch&) = delete;
    KelStopwatch& operator=(const KelStopwatch&) = delete;

  private:
    KelDurations& durations_;
    const KelDurations::Clock::time_point begin_ = KelDurations::Clock::now();
};

/// What a metric is. A name that breaks the rules for names does not compile: lower case, a prefix, "_total"
/// at the end of every counter and of nothing else, base units.
class KelMetric {
  public:
    enum class Kind : unsigned char { Counter, Gauge, Summary };  ///< a summary without quantiles

    consteval KelMetric(Kind kind, std::string_view name, std::string_view help)
        : kind_(kind), name_(name), help_(help) {
        if (!name.starts_with("kel_") && !name.starts_with("process_")) throw "the prefix is kel_";
        for (const char c : name)
            if (!(c >= 'a' && c <= 'z') && !(c >= '0' && c <= '9') && c != '_') throw "a-z, 0-9 and _ only";
        if (name.ends_with("_total") != (kind == Kind::Counter)) throw "counters end in _total";
        for (const std::string_view end : {"_sum", "_count", "_bucket", "_ms", "_milliseconds", "_kb"})
            if (name.ends_with(end)) throw "a reserved ending, or no base unit";
        if (!help.ends_with('.')) throw "the help is a sentence";
    }

    constexpr Kind GetKind() const { return kind_; }
    constexpr std::string_view Name() const { return name_; }
    constexpr std::string_view Help() const { return help_; }

  private:
    Kind kind_;
    std::string_view name_, help_;
};
