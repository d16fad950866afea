#pragma once

#include <cstddef>

#include "kel/types.h"

/// Walks the pieces of a text between separator characters, empty pieces included: a leading separator yields
/// an empty first token. For use on one thread.
class StringTokeniser {
  public:
    StringTokeniser(const KelString& text, char separator);

    /// Moves the next token into `token`; false when there is none left.
    bool GetNextToken(KelString& token);

    /// The token at `index` (0 first) or an empty text when there are fewer.
    KelString GetToken(std::size_t index) const;

    std::size_t GetTokenCount() const { return tokens_.size(); }

  private:
    KelVector<KelString> tokens_;
    std::size_t next_ = 0;
};
