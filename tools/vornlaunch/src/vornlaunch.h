#pragma once

#include "vornlib/time.h"

/// The asynchronous handler of the fatal and stop signals. SIGPIPE is
/// swallowed. The first other signal is reported on standard output and makes
/// the main loop end after the current batch, without stopping the nodes; later
/// ones have no effect. It stays installed, interrupts blocking calls and never
/// ends the process itself.
void sig_seg_handler(int sig);
