#pragma once

#include <cstdint>

#include "kel/types.h"

/// A bar on stderr that shows how much of a whole is done; shows nothing when stderr is no terminal. One
/// thread at a time.
class ProgressBar {
  public:
    /// `whole` in bytes.
    explicit ProgressBar(std::int64_t whole);
    /// Removes the bar.
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void Show(std::int64_t done, const KelString& what);

    /// The bar's text, `width` marks wide.
    static KelString Text(std::int64_t done, std::int64_t whole, std::size_t width);

  private:
    std::int64_t whole_;
    bool shown_;
};
