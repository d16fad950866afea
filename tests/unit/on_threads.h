#pragma once

#include <thread>
#include <vector>

/// Calls `work` with 0, 1, … on `count` threads at once, and returns when all of them have ended.
template <class Work>
void OnThreads(int count, const Work& work) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < count; ++thread)
        threads.emplace_back(work, thread);
}
