/* What the test asks of RawPlatform.c. Nothing here describes a record: they cross as bytes. */
#ifndef RAW_PLATFORM_H
#define RAW_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum RawRecord { RAW_START, RAW_CONNECT, RAW_ASYNC, RAW_SYNC, RAW_CALLBACK, RAW_SHARE, RAW_METADATA, RAW_RECORDS };

/* The latest record of a kind, as its bytes stood when the platform was given it, and what it pointed to. */
struct RawCapture {
    unsigned count;
    int32_t handle;
    uint16_t client;
    unsigned size;
    unsigned char bytes[1184];
    unsigned payloadSize;
    char payload[32768];
};

const struct RawCapture* raw_captured(enum RawRecord record);

/* What the next synchronous request is answered with. */
void raw_answerWith(const char* response);

/* A listener call: to the service when toService, else to the client. Answers the listener's own value. */
struct RawMessage {
    int toService;
    uint16_t peer;
    uint32_t type;
    uint16_t functionId;
    uint16_t eventId;
    uint32_t* length;
    int32_t* status;
    void* data;
    uint32_t requestContext;
};
int raw_deliver(const struct RawMessage* message);

/* Delivers text in a shared region, with message and metadata built byte by byte; 0 in *status when it was taken. */
int raw_deliverShared(int toService, uint16_t peer, uint16_t functionId, uint32_t context, const char* text,
                      int32_t* status);

#ifdef __cplusplus
}
#endif

#endif
