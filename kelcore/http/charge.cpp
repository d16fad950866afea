#include "kelcore/http/charge.h"

namespace {

thread_local HttpBandwidthManager* current = nullptr;

}  // namespace

HttpCharge::HttpCharge(HttpBandwidthManager* manager) {
    current = manager;
}

HttpCharge::~HttpCharge() {
    current = nullptr;
}

HttpBandwidthManager* HttpCharge::Manager() {
    return current;
}
