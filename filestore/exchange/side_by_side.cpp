#include "filestore/exchange/side_by_side.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>

#include "filestore/state/file_store.h"
#include "kel/types.h"

namespace filestore {

void RunSideBySide(std::size_t count, std::size_t mostAtOnce, const std::function<void(std::size_t)>& work) {
    std::atomic<std::size_t> next = 0;
    const auto workOn = [&] {
        for (std::size_t i = next++; i < count; i = next++) {
            try {
                work(i);
            } catch (const std::exception& exception) {
                FileStore::debugFileStore.Error("A call to another device failed: %s\n", exception.what());
            }
        }
    };
    KelVector<std::thread> threads;
    try {
        for (std::size_t i = 1; i < std::min(count, mostAtOnce); ++i)
            threads.emplace_back(workOn);
    } catch (const std::system_error&) {
        FileStore::debugFileStore.Detail("Only %lu devices are called at once: no more threads\n",
                                         threads.size() + 1);
    }
    workOn();
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace filestore
