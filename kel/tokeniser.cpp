#include "kel/tokeniser.h"

#include "kel/text.h"

StringTokeniser::StringTokeniser(const KelString& text, char separator)
    : tokens_(SplitText(text, separator)) {}

bool StringTokeniser::GetNextToken(KelString& token) {
    if (next_ == tokens_.size()) return false;
    token = tokens_[next_++];
    return true;
}

KelString StringTokeniser::GetToken(std::size_t index) const {
    return index < tokens_.size() ? tokens_[index] : KelString();
}
