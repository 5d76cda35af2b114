// Commands that go on until somebody has seen enough.
#pragma once

namespace kavstat {

// From now on SIGINT, SIGTERM and SIGHUP end what waits, and nothing else.
void end_at_signals();
// Whether one of them has come.
bool is_stopped();
// Sleeps so long, or until one comes.
void sleep_unless_stopped(double seconds);

} // namespace kavstat
