// For commands that run until a signal stops them.
#pragma once

namespace kavstat {

// From now on SIGINT, SIGTERM and SIGHUP no longer end the process. They end sleep_unless_stopped() and set
// is_stopped().
void end_at_signals();
// Whether one of them has come.
bool is_stopped();
// Sleeps for this time, or until one of the signals arrives.
void sleep_unless_stopped(double seconds);

} // namespace kavstat
