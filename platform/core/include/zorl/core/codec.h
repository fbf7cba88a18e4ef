#pragma once
// Sequential little-endian binary streams over memory.
//
// Encoder appends to a byte vector. Decoder reads from its own copy of the bytes; every
// decode* returns false, leaving its output unchanged, when the stream cannot supply the
// value, and once a read has failed every later read fails too. A Decoder never reads
// past the end of its bytes.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <zorl/core/export.h>

namespace zorl {

class ZORL_CORE_EXPORT Encoder {
public:
    Encoder() = default;

    void encodeUint8(uint8_t v);
    void encodeInt(int v);  // 32-bit
    void encodeUint32(uint32_t v);
    void encodeUint64(uint64_t v);
    void encodeFloat(float v);
    void encodeData(const uint8_t* data, uint64_t size);
    void encodeString(const std::string& s);  // uint64 length, then the bytes

    const std::vector<uint8_t>& data() const { return bytes_; }
    std::vector<uint8_t> take() { return std::move(bytes_); }
    uint64_t size() const { return bytes_.size(); }

private:
    std::vector<uint8_t> bytes_;
};

class ZORL_CORE_EXPORT Decoder {
public:
    Decoder() = default;
    explicit Decoder(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    Decoder(const uint8_t* data, uint64_t size) : bytes_(data, data + size) {}

    bool decodeUint8(uint8_t& v);
    bool decodeInt(int& v);
    bool decodeUint32(uint32_t& v);
    bool decodeUint64(uint64_t& v);
    bool decodeFloat(float& v);
    bool decodeData(uint8_t* data, const uint64_t& size);
    // Reads a string written by encodeString; fails when longer than maxLength.
    bool decodeString(std::string& s, uint64_t maxLength = 1 << 20);

    uint64_t remaining() const { return failed_ ? 0 : bytes_.size() - pos_; }
    uint64_t position() const { return pos_; }
    bool failed() const { return failed_; }

private:
    bool take(void* out, uint64_t n);

    std::vector<uint8_t> bytes_;
    uint64_t pos_ = 0;
    bool failed_ = false;
};

}  // namespace zorl
