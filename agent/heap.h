#pragma once

/// Limits the number of heaps that the threads of the process share and what each of them keeps of the memory
/// that it has freed. Call it before the first thread is started.
void LimitHeaps();

/// Gives the free memory of all heaps back to the system, from in between what is used too. Takes about 0.1
/// ms for each MiB, a hundredth of a millisecond when there is nothing to give back. Any thread.
void ReleaseFreeMemory();
