// Must not compile with KEL_CASE 1 and above: each case is a format string that does not fit its arguments.
// Case 0 compiles, so that a failure of the others cannot come from something else in this file.
#include <cstdint>

#include "kel/format.h"

int main() {
    const KelString text = "text";
    const std::int64_t wide = 1;
    const unsigned int number = 1;
#if KEL_CASE == 0
    KelFormat("%S %s %gd %u %d%", text, "text", wide, number, -1);
#elif KEL_CASE == 1
    KelFormat("%s", text);
#elif KEL_CASE == 2
    KelFormat("%S", "text");
#elif KEL_CASE == 3
    KelFormat("%d", wide);
#elif KEL_CASE == 4
    KelFormat("%d", number);
#elif KEL_CASE == 5
    KelFormat("%u", -1);
#elif KEL_CASE == 6
    KelFormat("%S %u", text);
#elif KEL_CASE == 7
    KelFormat("%S", text, number);
#elif KEL_CASE == 8
    KelFormat("100%% of %Q", number);
#elif KEL_CASE == 9
    KelFormat(text.c_str());
#endif
}
