#include <cstdlib>

#include "kel/container.h"

/// Whatever is accepted must be written in a form that reads back equal; whatever is refused leaves nothing.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    KelContainer read;
    if (!read.LoadFromXML({reinterpret_cast<const char*>(data), size})) {
        if (!read.IsEmpty()) std::abort();
        return 0;
    }
    const KelString xml = read.SaveToXML();
    KelContainer again;
    if (xml.find('\'') != KelString::npos || !again.LoadFromXML(xml) || !(again == read)) std::abort();

    // Any bytes at all survive as a string and as a name.
    const KelString bytes(reinterpret_cast<const char*>(data), size);
    KelContainer outer;
    outer.SetString(bytes, bytes);
    if (!again.LoadFromXML(outer.SaveToXML()) || !(again == outer)) std::abort();
    return 0;
}
