#pragma once

/// The version of the program and of everything that is installed with it, as "1.2.0".
const char* KelVersion();
