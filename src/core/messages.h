// Sending and receiving the library's queue messages.
#pragma once

#include "vrixdb.h"

#include <sys/types.h>

namespace vrix {

// Sends the whole 128-byte text, blocking while the queue is full.
// Returns 0 on success, -1 when msgsnd failed.
int send_message(int queue, const NotifyMessage &msg);

// Receives the next message of any type (blocking).  Returns the size of its
// text: up to VRIX_MSG_TEXT_SIZE as sent (the rest of msg zeroed), or
// VRIX_MSG_TEXT_SIZE + 1 for any longer text (cut to VRIX_MSG_TEXT_SIZE);
// -1 on failure.
ssize_t receive_message(int queue, NotifyMessage &msg);

// Fills a message with type 1, the kind, and zeros.
void prepare_message(NotifyMessage &msg, unsigned char kind);

// Little-endian 32-bit word at a text offset.
void put_message_word(NotifyMessage &msg, int offset, int value);
int message_word(const NotifyMessage &msg, int offset);

} // namespace vrix
