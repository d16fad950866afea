#pragma once

namespace CLI {
class App;
}

/// Names the command that does not exist, of the program or of one of its commands, and a similar one.
/// False, without a message, when the arguments failed for another reason.
bool ReportUnknownCommand(const CLI::App& app);
