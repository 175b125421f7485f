#pragma once
// dispatch: only the queue type, which XPC takes as a connection's target
// queue (NULL: a queue of the system's choosing).

typedef struct dispatch_queue_s* dispatch_queue_t;
