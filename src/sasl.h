// SASL PLAIN: the message that proves who logs in. RFC 4616.
//
// Ownership: the result is a view over memory of the caller.
// Threads: no state; any thread.
#pragma once

#include "buffers.h"

// The message, not yet in base64, without an identity to act for: NUL, user, NUL, password. A view
// over the front of `buffer`, which must have room for it.
String get_plain_auth (Buffer buffer, String user, String password);
