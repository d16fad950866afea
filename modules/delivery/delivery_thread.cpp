#include "modules/delivery/delivery_thread.h"

namespace {

constexpr std::uint64_t kRetryMilliseconds = std::uint64_t{60} * 1000;
constexpr std::uint64_t kIdleMilliseconds = std::uint64_t{3600} * 1000;

}  // namespace

void DeliveryThread::ThreadMain() {
    while (!CheckCancelled(false)) {
        const bool isWorkLeft = work_();
        Pause(isWorkLeft ? kRetryMilliseconds : kIdleMilliseconds);
    }
}
