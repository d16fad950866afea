// Compiled with KEL_CALL set to each call of the list in ../CMakeLists.txt.
#include <cstdint>

#include "kel/format.h"

int main() {
    [[maybe_unused]] const KelString text = "text";
    [[maybe_unused]] const std::int64_t wide = 1;
    [[maybe_unused]] const unsigned int number = 1;
    KEL_CALL;
}
