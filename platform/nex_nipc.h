/** @file
 * The boundary to the platform's inter-process messaging library, libnex_nipc.
 *
 * Plain C. The connector calls the eight operations below and is called back through the listener; it
 * knows nothing else of the platform. Whoever has the vendor's library links it; on Linux we ship our own
 * (platform/linux). What an implementation must promise is told in platform/README.md.
 *
 * The records are a binary contract: the comments give each field's offset where a pointer has 4 bytes,
 * and the assertions at the end hold them there. Where a pointer has 8 bytes they widen naturally.
 */
#ifndef NEX_NIPC_H
#define NEX_NIPC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Result of every operation: 0 is success. Ours are negative errno values. */
typedef int32_t nex_status_t;

/** What a listener call is about (nexNipc_parameter_t::type). */
typedef enum NipcMessageType {
    SYNC_FUNCTION = 0,
    ASYNC_FUNCTION = 1,
    CALLBACK = 2,
    EVENT = 3,
    BROADCAST_EVENT = 4,
    MULTICAST_EVENT = 5,
    INVALID = 6
} NipcMessageType;

/** Function identifiers with a meaning of their own; those of names lie in 1004..65279. */
enum {
    CLIENT_FD_PROCESSING_COMPLETED_ID = 1000, /**< client to server: the client has copied a shared payload */
    SERVER_FD_PROCESSING_COMPLETED_ID = 1001, /**< server to client: the server has copied a shared payload */
    ASYNC_RESPONSE_SUCCESS_ID = 1002,         /**< server to client: answer of a handler that succeeded */
    ASYNC_RESPONSE_FAILURE_ID = 1003,         /**< server to client: answer of a handler that failed */
    CLIENT_SHARE_FD_ID = 65524,               /**< delivered to a client: a shared payload arrived */
    SERVER_SHARE_FD_ID = 65525                /**< delivered to a server: a shared payload arrived */
};

/** Values of nexNipc_parameter_t::eventId for type EVENT. */
enum {
    NEX_NIPC_EVENT_CONNECTION_DONE = 65520,     /**< client: connected, when *status is 0 */
    NEX_NIPC_EVENT_CLIENT_CONNECTED = 65531,    /**< server: peerId has connected */
    NEX_NIPC_EVENT_CLIENT_DISCONNECTED = 65532, /**< server: peerId is gone */
    NEX_NIPC_EVENT_SERVER_UP = 65533,           /**< client: the service with uuid peerId came up */
    NEX_NIPC_EVENT_SERVER_DOWN = 65534          /**< client: the service is gone */
};

/** What the platform hands to a listener; valid only during the call. */
typedef struct nexNipc_parameter_t {
    uint16_t peerId;      /**< 0: server: the client's id; client: the uuid of SERVER_UP */
    uint32_t type;        /**< 4: NipcMessageType */
    uint16_t functionId;  /**< 8: of the request or callback */
    uint16_t eventId;     /**< 10: for type EVENT */
    uint32_t* length;     /**< 12: in: payload length; out (synchronous requests): response length */
    int32_t* status;      /**< 16: out: 0, or why the request failed; in: result of CONNECTION_DONE */
    void* data;           /**< 20: in: payload, or ShareFdMsg; out (synchronous requests): response buffer,
                                     writable and at least 16384 bytes */
    uint32_t reserved[4]; /**< 24 */
    void* userContext;    /**< 40: as given in the start or connect record */
    void* requestContext; /**< 44: as given by the requester; null for an event */
} nexNipc_parameter_t;

/** Called by the platform for everything that arrives. */
typedef int (*nexNipc_listener_t)(nexNipc_parameter_t* parameter);

/** How a service is offered. Zero-fill, then set the fields that have a name here. */
typedef struct ServerStartRecord {
    uint16_t uuid;               /**< 0: the service's number */
    uint32_t reserved4;          /**< 4 */
    nexNipc_listener_t listener; /**< 8 */
    uint32_t messageSize;        /**< 12: 16384 */
    uint16_t option16;           /**< 16: 10 */
    uint32_t option20;           /**< 20: 1 */
    uint32_t reserved24[2];      /**< 24 */
    uint32_t option32;           /**< 32: 1 */
    void* userContext;           /**< 36: handed back to the listener */
    uint8_t reserved40[1144];    /**< 40 */
} ServerStartRecord;

/** How a client connects. Zero-fill, then set the fields that have a name here. */
typedef struct ClientConnectRecord {
    uint16_t uuid;               /**< 0: the service's number */
    nexNipc_listener_t listener; /**< 4 */
    uint32_t messageSize;        /**< 8: 16384 */
    uint32_t option12;           /**< 12: 1 */
    void* userContext;           /**< 16: handed back to the listener */
    uint8_t reserved20[1144];    /**< 20 */
} ClientConnectRecord;

/** A synchronous request. Zero-fill before use. */
typedef struct SyncRpcRecord {
    uint16_t functionId;     /**< 0 */
    uint16_t reserved2;      /**< 2 */
    const void* payload;     /**< 4: valid until the call returns */
    uint32_t length;         /**< 8 */
    void* response;          /**< 12: buffer of the caller's */
    uint32_t responseLength; /**< 16: in: capacity of the buffer; out: length of the response */
    int32_t status;          /**< 20: in: 1; out: 0, or the service's own value */
} SyncRpcRecord;

/** An asynchronous request. Zero-fill before use. */
typedef struct AsyncRpcRecord {
    uint16_t functionId;      /**< 0 */
    uint16_t reserved2;       /**< 2 */
    const void* payload;      /**< 4: valid until the call returns */
    uint32_t length;          /**< 8 */
    uint32_t reserved12;      /**< 12: 0 */
    uint16_t functionIdAgain; /**< 16 */
    uint16_t reserved18;      /**< 18 */
    uint32_t reserved20;      /**< 20: 0 */
    void* requestContext;     /**< 24: comes back with the answer */
} AsyncRpcRecord;

/** An event, or the answer to an asynchronous request. */
typedef struct CallbackRecord {
    uint32_t reserved0;   /**< 0: 0 */
    uint16_t functionId;  /**< 4 */
    uint16_t reserved6;   /**< 6 */
    uint32_t reserved8;   /**< 8: not written by the caller */
    const void* payload;  /**< 12: valid until the call returns */
    uint32_t length;      /**< 16 */
    void* requestContext; /**< 20: null for an event, the request's context for an answer */
} CallbackRecord;

/** Hands shared-memory descriptors to the peer. */
typedef struct ShareFdMsg {
    uint32_t fdCount;      /**< 0: 1 */
    uint32_t metadataSize; /**< 4: 10 */
    int32_t* fds;          /**< 8 */
    void* metadata;        /**< 12: a ShareFdMetadata */
    uint32_t reserved16;   /**< 16: not written by the caller */
} ShareFdMsg;

/** What the shared payload is: 10 bytes, packed, on every target. */
#pragma pack(push, 1)
typedef struct ShareFdMetadata {
    uint32_t length;         /**< 0: payload length in bytes */
    uint16_t functionId;     /**< 4: of the carried message */
    uint32_t requestContext; /**< 6: low 32 bits of the request context; 0 for an event */
} ShareFdMetadata;
#pragma pack(pop)

/** Offers a service; writes its handle on success, before the first listener call. */
nex_status_t nexNipc_start(int32_t* handle, const ServerStartRecord* record);

/** Connects to a service; writes the handle on success, before the first listener call. The outcome
 *  comes as NEX_NIPC_EVENT_CONNECTION_DONE. May block; call it from a thread that can wait. */
nex_status_t nexNipc_connect(int32_t* handle, const ClientConnectRecord* record);

/** Ends a client's connection or a service. When it returns, no listener call of that handle is running
 *  or will run; called from inside one, none starts after it. */
nex_status_t nexNipc_disconnect(int32_t* handle);

/** Sends a request that is answered later, or never. The payload is copied before the call returns. */
nex_status_t nexNipc_rpcAsync(int32_t handle, AsyncRpcRecord* record);

/** Sends a request and waits for the answer. Non-zero only when it could not be carried; the service's
 *  own result is in the record. */
nex_status_t nexNipc_rpcSync(int32_t handle, SyncRpcRecord* record);

/** Sends an event or an answer to one client. The payload is copied before the call returns. */
nex_status_t nexNipc_callback(int32_t handle, uint16_t clientId, CallbackRecord* record);

/** Shares a descriptor with the service. Message and descriptor stay the caller's. */
nex_status_t nexNipc_clientShareFd(int32_t handle, ShareFdMsg* message);

/** Shares a descriptor with one client. Message and descriptor stay the caller's. */
nex_status_t nexNipc_serviceShareFd(int32_t handle, uint16_t clientId, ShareFdMsg* message);

#ifdef __cplusplus
}
#define NEX_NIPC_ASSERT(condition) static_assert(condition, #condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define NEX_NIPC_ASSERT(condition) _Static_assert(condition, #condition)
#else /* C99: a negative array size, in an extern declaration that may repeat */
#define NEX_NIPC_ASSERT(condition) extern char nex_nipc_assertion[(condition) ? 1 : -1]
#endif

#define NEX_NIPC_AT(record, field, offset) NEX_NIPC_ASSERT(offsetof(record, field) == (offset))

NEX_NIPC_ASSERT(sizeof(ShareFdMetadata) == 10);
NEX_NIPC_AT(ShareFdMetadata, functionId, 4);
NEX_NIPC_AT(ShareFdMetadata, requestContext, 6);

#if UINTPTR_MAX == 0xFFFFFFFFU
NEX_NIPC_AT(nexNipc_parameter_t, type, 4);
NEX_NIPC_AT(nexNipc_parameter_t, functionId, 8);
NEX_NIPC_AT(nexNipc_parameter_t, eventId, 10);
NEX_NIPC_AT(nexNipc_parameter_t, length, 12);
NEX_NIPC_AT(nexNipc_parameter_t, status, 16);
NEX_NIPC_AT(nexNipc_parameter_t, data, 20);
NEX_NIPC_AT(nexNipc_parameter_t, userContext, 40);
NEX_NIPC_AT(nexNipc_parameter_t, requestContext, 44);
NEX_NIPC_ASSERT(sizeof(nexNipc_parameter_t) == 48);
NEX_NIPC_AT(ServerStartRecord, listener, 8);
NEX_NIPC_AT(ServerStartRecord, messageSize, 12);
NEX_NIPC_AT(ServerStartRecord, option16, 16);
NEX_NIPC_AT(ServerStartRecord, option20, 20);
NEX_NIPC_AT(ServerStartRecord, option32, 32);
NEX_NIPC_AT(ServerStartRecord, userContext, 36);
NEX_NIPC_ASSERT(sizeof(ServerStartRecord) == 1184);
NEX_NIPC_AT(ClientConnectRecord, listener, 4);
NEX_NIPC_AT(ClientConnectRecord, messageSize, 8);
NEX_NIPC_AT(ClientConnectRecord, option12, 12);
NEX_NIPC_AT(ClientConnectRecord, userContext, 16);
NEX_NIPC_ASSERT(sizeof(ClientConnectRecord) == 1164);
NEX_NIPC_AT(SyncRpcRecord, payload, 4);
NEX_NIPC_AT(SyncRpcRecord, length, 8);
NEX_NIPC_AT(SyncRpcRecord, response, 12);
NEX_NIPC_AT(SyncRpcRecord, responseLength, 16);
NEX_NIPC_AT(SyncRpcRecord, status, 20);
NEX_NIPC_ASSERT(sizeof(SyncRpcRecord) == 24);
NEX_NIPC_AT(AsyncRpcRecord, payload, 4);
NEX_NIPC_AT(AsyncRpcRecord, length, 8);
NEX_NIPC_AT(AsyncRpcRecord, reserved12, 12);
NEX_NIPC_AT(AsyncRpcRecord, functionIdAgain, 16);
NEX_NIPC_AT(AsyncRpcRecord, reserved20, 20);
NEX_NIPC_AT(AsyncRpcRecord, requestContext, 24);
NEX_NIPC_ASSERT(sizeof(AsyncRpcRecord) == 28);
NEX_NIPC_AT(CallbackRecord, functionId, 4);
NEX_NIPC_AT(CallbackRecord, reserved8, 8);
NEX_NIPC_AT(CallbackRecord, payload, 12);
NEX_NIPC_AT(CallbackRecord, length, 16);
NEX_NIPC_AT(CallbackRecord, requestContext, 20);
NEX_NIPC_ASSERT(sizeof(CallbackRecord) == 24);
NEX_NIPC_AT(ShareFdMsg, metadataSize, 4);
NEX_NIPC_AT(ShareFdMsg, fds, 8);
NEX_NIPC_AT(ShareFdMsg, metadata, 12);
NEX_NIPC_ASSERT(sizeof(ShareFdMsg) == 20);
#endif

#endif
