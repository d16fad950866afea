#pragma once

#include <cstdint>

#include "kel/format.h"

namespace filestore {

/// Row identifiers as the text of an SQL list.
class IdList {
  public:
    void Add(std::uint64_t id) {
        text_ += KelFormat("%s%gu", text_.empty() ? "" : ", ", id);
        ++count_;
    }
    bool IsEmpty() const { return count_ == 0; }
    std::size_t Count() const { return count_; }
    const KelString& Text() const { return text_; }

  private:
    KelString text_;
    std::size_t count_ = 0;
};

}  // namespace filestore
