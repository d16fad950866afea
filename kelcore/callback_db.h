#pragma once

#include "kel/container.h"
#include "kel/types.h"

// The callback database of the process: events to which actions are subscribed. All operations may be called
// from any thread.

/// Subscribes the action with `actionSignature` to `eventName`. `filter`: kept with the subscription, empty
/// for none; a subscription is identified by all three texts and exists once. `priority`: lower ones are
/// called first, equal ones in the order of subscription.
void CallbackDbRegisterAction(const KelString& eventName, const KelString& actionSignature,
                              const KelString& filter, int priority);

void CallbackDbDeleteAction(const KelString& eventName, const KelString& actionSignature,
                            const KelString& filter);

/// The number of actions subscribed to an event.
unsigned int CallbackDbGetActionCount(const KelString& eventName);

/// Calls every subscribed action in turn, on this thread, each with its own copy of `arguments`; `results`
/// receives per action name the 32-bit integer it returned. 0 when every action returned 0, else the first
/// other code. Never throws.
unsigned int CallbackDbTrigger(const KelString& eventName, const KelContainer& arguments,
                               KelContainer& results);
