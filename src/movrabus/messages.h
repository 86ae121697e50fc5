// The life of a sent message: it has two holders, the sending call until it has logged and the library until
// on_delivered, in either order. The last of them frees it.
#pragma once

#include "tervbus.h"

// Gives up one hold on a record that mobus_send_message made.
void sent_message_drop(tervbus_message *message);
