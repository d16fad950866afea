#pragma once

#include <span>

#include "kelcore/action_description.h"

class KelContainer;

/// An action of the module: its handler, and what it is. Handlers run on any thread, concurrently.
struct FileStoreAction {
    unsigned int (*handler)(KelContainer*);
    KelActionDescription description;
};

/// All actions of the module, in the order of their registration.
std::span<const FileStoreAction> FileStoreActions();
