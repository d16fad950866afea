#pragma once

#include <functional>

#include "kel/thread.h"

/// Works on the open jobs: at its start, whenever it is signalled, and once a minute while a job waits for
/// another try.
class DeliveryThread : public KelThread {
  public:
    /// `work` does what can be done and returns true when something is left for later.
    explicit DeliveryThread(std::function<bool()> work) : work_(std::move(work)) {}

  protected:
    void ThreadMain() override;

  private:
    std::function<bool()> work_;
};
