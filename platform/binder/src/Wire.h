#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Frames on a connection: an 8-byte header (command, body size) and a body of little-endian
// fields. Everything here is pure so that decoding can be tested with arbitrary bytes.
namespace android::wire {

constexpr size_t kHeaderSize = 8;
constexpr size_t kMaxBody = 1u << 20;
// Each object costs the receiver a proxy, so a frame may carry only a few.
constexpr size_t kMaxObjects = 1024;

enum Command : uint32_t { Transact = 1, Reply = 2 };
// Which side's table an object id refers to, seen from the sender.
enum ObjectKind : uint32_t { SenderObject = 1, ReceiverObject = 2 };

struct Object {
    uint32_t kind = 0;
    uint64_t id = 0;
};

struct Frame {
    uint32_t command = 0;
    uint64_t txnId = 0;
    uint64_t parentTxn = 0; // for Transact: the caller's transaction this call is nested in
    uint64_t target = 0;
    uint32_t code = 0;
    uint32_t flags = 0;
    int32_t status = 0; // for Reply
    std::vector<uint8_t> data;
    std::vector<Object> objects;
};

// Returns the whole frame including its header; empty when the body would exceed kMaxBody or
// the objects kMaxObjects.
std::vector<uint8_t> encode(const Frame &frame);
// False when the header's size is beyond kMaxBody or the command is unknown.
bool decodeHeader(const uint8_t *header, uint32_t *command, uint32_t *bodySize);
// False on any truncated, oversized or trailing field, or too many objects.
bool decodeBody(uint32_t command, const uint8_t *body, size_t size, Frame *out);

} // namespace android::wire
