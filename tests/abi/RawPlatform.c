/*
 * A libnex_nipc as its vendor would write it for the 32-bit device: it knows every record by byte offsets alone and
 * includes none of the product's headers, so it disagrees with them if they ever change.
 */
#define _GNU_SOURCE
#include "RawPlatform.h"

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

enum { SERVICE_HANDLE = 41, CLIENT_HANDLE = 42 };

typedef int (*Listener)(void* parameter);

static struct RawCapture captures[RAW_RECORDS];
static const char* answer = "";

static uint32_t word(const void* record, unsigned offset) {
    uint32_t value;
    memcpy(&value, (const char*)record + offset, sizeof value);
    return value;
}

static void* pointer(const void* record, unsigned offset) { return (void*)(uintptr_t)word(record, offset); }

/* The bytes of a number from its lowest on, as the device keeps them. */
static void put(void* record, unsigned offset, unsigned width, uint32_t value) {
    memcpy((char*)record + offset, &value, width);
}

static void putPointer(void* record, unsigned offset, void* value) {
    put(record, offset, 4, (uint32_t)(uintptr_t)value);
}

static void capture(enum RawRecord kind, int32_t handle, uint16_t client, const void* record, unsigned size,
                    const void* payload, unsigned payloadSize) {
    struct RawCapture* seen = &captures[kind];
    seen->handle = handle;
    seen->client = client;
    seen->size = size;
    memcpy(seen->bytes, record, size);
    seen->payloadSize = payload == NULL ? 0 : payloadSize;
    if (payload != NULL) memcpy(seen->payload, payload, payloadSize);
    ++seen->count;
}

const struct RawCapture* raw_captured(enum RawRecord record) { return &captures[record]; }

void raw_answerWith(const char* response) { answer = response; }

EXPORT int32_t nexNipc_start(int32_t* handle, const void* record) {
    *handle = SERVICE_HANDLE;
    capture(RAW_START, *handle, 0, record, 1184, NULL, 0);
    return 0;
}

EXPORT int32_t nexNipc_connect(int32_t* handle, const void* record) {
    *handle = CLIENT_HANDLE;
    capture(RAW_CONNECT, *handle, 0, record, 1164, NULL, 0);
    return 0;
}

EXPORT int32_t nexNipc_disconnect(int32_t* handle) {
    return *handle == CLIENT_HANDLE || *handle == SERVICE_HANDLE ? 0 : -1;
}

EXPORT int32_t nexNipc_rpcAsync(int32_t handle, void* record) {
    capture(RAW_ASYNC, handle, 0, record, 28, pointer(record, 4), word(record, 8));
    return 0;
}

EXPORT int32_t nexNipc_rpcSync(int32_t handle, void* record) {
    capture(RAW_SYNC, handle, 0, record, 24, pointer(record, 4), word(record, 8));
    const uint32_t length = (uint32_t)strlen(answer);
    if (length > word(record, 16)) return -1;
    memcpy(pointer(record, 12), answer, length);
    put(record, 16, 4, length);
    put(record, 20, 4, 0);
    return 0;
}

EXPORT int32_t nexNipc_callback(int32_t handle, uint16_t client, void* record) {
    capture(RAW_CALLBACK, handle, client, record, 24, pointer(record, 12), word(record, 16));
    return 0;
}

/* The peer has copied the region by the time it acknowledges, which here is at once. */
static int32_t share(int toService, int32_t handle, uint16_t client, void* message, uint16_t acknowledgement) {
    void* metadata = pointer(message, 12);
    const uint32_t length = word(metadata, 0);
    const int fd = *(int*)pointer(message, 8);
    void* region = mmap(NULL, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (region == MAP_FAILED || word(message, 0) != 1 || word(message, 4) != 10) return -1;
    capture(RAW_SHARE, handle, client, message, 16, region, length);
    capture(RAW_METADATA, handle, client, metadata, 10, NULL, 0);
    munmap(region, length);

    uint32_t none = 0;
    int32_t status = 0;
    struct RawMessage done = {toService, client, toService ? 1U : 2U, acknowledgement, 0, &none, &status, NULL, 0};
    raw_deliver(&done);
    return 0;
}

EXPORT int32_t nexNipc_clientShareFd(int32_t handle, void* message) { return share(0, handle, 0, message, 1001); }

EXPORT int32_t nexNipc_serviceShareFd(int32_t handle, uint16_t client, void* message) {
    return share(1, handle, client, message, 1000);
}

EXPORT int ashmem_create_region(const char* name, size_t size) {
    const int fd = memfd_create(name != NULL ? name : "", MFD_CLOEXEC);
    if (fd >= 0 && ftruncate(fd, (off_t)size) == 0) return fd;
    close(fd);
    return -1;
}

int raw_deliver(const struct RawMessage* message) {
    const unsigned char* opened = captures[message->toService ? RAW_START : RAW_CONNECT].bytes;
    const Listener listener = (Listener)(uintptr_t)word(opened, message->toService ? 8 : 4);

    unsigned char parameter[48];
    memset(parameter, 0, sizeof parameter);
    put(parameter, 0, 2, message->peer);
    put(parameter, 4, 4, message->type);
    put(parameter, 8, 2, message->functionId);
    put(parameter, 10, 2, message->eventId);
    putPointer(parameter, 12, message->length);
    putPointer(parameter, 16, message->status);
    putPointer(parameter, 20, message->data);
    memset(parameter + 24, 0xA5, 16); /* the vendor's own; nobody else's business */
    putPointer(parameter, 40, pointer(opened, message->toService ? 36 : 16));
    put(parameter, 44, 4, message->requestContext);
    return listener(parameter);
}

int raw_deliverShared(int toService, uint16_t peer, uint16_t functionId, uint32_t context, const char* text,
                      int32_t* status) {
    const uint32_t length = (uint32_t)strlen(text);
    int fd = ashmem_create_region("raw", length);
    if (fd < 0 || pwrite(fd, text, length, 0) != (ssize_t)length) return -1;

    unsigned char metadata[10];
    put(metadata, 0, 4, length);
    put(metadata, 4, 2, functionId);
    put(metadata, 6, 4, context);
    unsigned char message[20];
    memset(message, 0xA5, sizeof message);
    put(message, 0, 4, 1);
    put(message, 4, 4, sizeof metadata);
    putPointer(message, 8, &fd);
    putPointer(message, 12, metadata);

    uint32_t size = sizeof message;
    struct RawMessage shared = {toService, peer, toService ? 1U : 2U, toService ? 65525 : 65524, 0, &size, status,
                                message,   0};
    return raw_deliver(&shared);
}
