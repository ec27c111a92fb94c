#pragma once
// IBusInputSources: the keyboard input sources of a running IBus daemon, over
// its own D-Bus connection. IBus engines are the sources: "xkb:…" engines are
// layouts, the others input methods that compose. The current engine is cached
// and refreshed when IBus announces a change, so a key press costs no round
// trip.
//
// Main thread only.

#include <memory>

#include "input/NativeTerminalInput.h"

namespace velko {

// The service when an IBus daemon of this session answers, else null (the
// native terminal path then stays off and every key takes the web view's).
std::shared_ptr<InputSourceServicing> connectIBusInputSources();

}  // namespace velko
