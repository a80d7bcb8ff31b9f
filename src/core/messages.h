// Sending and receiving the library's queue messages.
#pragma once

#include "vrixdb.h"

namespace vrix {

// Sends the whole 128-byte text, blocking while the queue is full.
// Returns 0 on success, -1 when msgsnd failed.
int send_message(int queue, const NotifyMessage &msg);

// Receives the next message of any type (blocking); -1 on failure.
int receive_message(int queue, NotifyMessage &msg);

// Fills a message with type 1, the kind, and zeros.
void prepare_message(NotifyMessage &msg, unsigned char kind);

// Little-endian 32-bit word at a text offset.
void put_message_word(NotifyMessage &msg, int offset, int value);
int message_word(const NotifyMessage &msg, int offset);

} // namespace vrix
