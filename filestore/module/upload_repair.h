#pragma once

/// Takes up what a stop or crash has left between a child's PUT and the hand-over: files that have arrived
/// whole are queued again, half-made archives and half-unpacked folders are removed. Before the threads
/// start.
void FileStoreRepairUploads();
