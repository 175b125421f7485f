#pragma once
// XPC: connections, dictionaries and the object types the adapters tell apart.

#include <dispatch/dispatch.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma clang assume_nonnull begin

typedef void* xpc_object_t;
typedef struct _xpc_connection_s* xpc_connection_t;
typedef const struct _xpc_type_s* xpc_type_t;
typedef void (^xpc_handler_t)(xpc_object_t object);

extern const struct _xpc_type_s _xpc_type_connection;
extern const struct _xpc_type_s _xpc_type_dictionary;
extern const struct _xpc_type_s _xpc_type_data;
#define XPC_TYPE_CONNECTION (&_xpc_type_connection)
#define XPC_TYPE_DICTIONARY (&_xpc_type_dictionary)
#define XPC_TYPE_DATA (&_xpc_type_data)

// The final event of a connection: it was cancelled, or (a listener's peer)
// its client went. A constant of the runtime; retain and release do nothing.
extern const struct _xpc_dictionary_s _xpc_error_connection_invalid;
#define XPC_ERROR_CONNECTION_INVALID ((xpc_object_t)&_xpc_error_connection_invalid)

// xpc_connection_create_mach_service flag: listen on the service.
#define XPC_CONNECTION_MACH_SERVICE_LISTENER (1 << 0)

xpc_object_t xpc_retain(xpc_object_t object);
void xpc_release(xpc_object_t object);
xpc_type_t xpc_get_type(xpc_object_t object);
// The caller frees the text with free().
char* xpc_copy_description(xpc_object_t object);

// A new connection, suspended until resumed; the caller releases it.
xpc_connection_t xpc_connection_create_mach_service(const char* name,
                                                    dispatch_queue_t _Nullable targetq,
                                                    uint64_t flags);
void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler);
void xpc_connection_resume(xpc_connection_t connection);
void xpc_connection_cancel(xpc_connection_t connection);
void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message);
// Calls `handler` on `replyq` (NULL: the connection's target queue) with the
// reply or an error object, which the handler does not own.
void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            dispatch_queue_t _Nullable replyq,
                                            xpc_handler_t handler);
// The reply, or an error object; the caller releases it.
xpc_object_t xpc_connection_send_message_with_reply_sync(xpc_connection_t connection,
                                                         xpc_object_t message);
pid_t xpc_connection_get_pid(xpc_connection_t connection);

// A new dictionary; the caller releases it.
xpc_object_t xpc_dictionary_create(const char* const _Nullable* _Nullable keys,
                                   const xpc_object_t _Nullable* _Nullable values, size_t count);
// The reply to `original`, to be released by the caller; NULL when the
// message expects no reply.
xpc_object_t _Nullable xpc_dictionary_create_reply(xpc_object_t original);
// Borrowed; NULL when the key is absent.
xpc_object_t _Nullable xpc_dictionary_get_value(xpc_object_t xdict, const char* key);
// Borrowed bytes; NULL when the key is absent or its value is not data.
const void* _Nullable xpc_dictionary_get_data(xpc_object_t xdict, const char* key,
                                              size_t* _Nullable length);
// A data object's bytes (borrowed; may be NULL when it holds none) and length.
const void* _Nullable xpc_data_get_bytes_ptr(xpc_object_t xdata);
size_t xpc_data_get_length(xpc_object_t xdata);
// Stores a copy of the bytes.
void xpc_dictionary_set_data(xpc_object_t xdict, const char* key, const void* _Nullable bytes,
                             size_t length);
// Borrowed; NULL for a message that did not come over a connection.
xpc_connection_t _Nullable xpc_dictionary_get_remote_connection(xpc_object_t xdict);

#pragma clang assume_nonnull end

#ifdef __cplusplus
}
#endif
