#include <zorl/core/codec.h>

#include <bit>
#include <cstring>

namespace zorl {
namespace {
static_assert(std::endian::native == std::endian::little, "streams are little-endian; add byte swaps for big-endian hosts");

template <class T>
void append(std::vector<uint8_t>& out, T v) {
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, &v, sizeof(T));
    out.insert(out.end(), raw, raw + sizeof(T));
}
}  // namespace

void Encoder::encodeUint8(uint8_t v) { bytes_.push_back(v); }
void Encoder::encodeInt(int v) { append<int32_t>(bytes_, v); }
void Encoder::encodeUint32(uint32_t v) { append(bytes_, v); }
void Encoder::encodeUint64(uint64_t v) { append(bytes_, v); }
void Encoder::encodeFloat(float v) { append(bytes_, v); }
void Encoder::encodeData(const uint8_t* data, uint64_t size) {
    if (size) bytes_.insert(bytes_.end(), data, data + size);
}
void Encoder::encodeString(const std::string& s) {
    encodeUint64(s.size());
    encodeData(reinterpret_cast<const uint8_t*>(s.data()), s.size());
}

bool Decoder::take(void* out, uint64_t n) {
    if (failed_ || n > bytes_.size() - pos_) {
        failed_ = true;
        return false;
    }
    if (n) std::memcpy(out, bytes_.data() + pos_, n);
    pos_ += n;
    return true;
}

bool Decoder::decodeUint8(uint8_t& v) { return take(&v, 1); }
bool Decoder::decodeInt(int& v) {
    int32_t t;
    if (!take(&t, 4)) return false;
    v = t;
    return true;
}
bool Decoder::decodeUint32(uint32_t& v) { return take(&v, 4); }
bool Decoder::decodeUint64(uint64_t& v) { return take(&v, 8); }
bool Decoder::decodeFloat(float& v) { return take(&v, 4); }
bool Decoder::decodeData(uint8_t* data, const uint64_t& size) { return take(data, size); }
bool Decoder::decodeString(std::string& s, uint64_t maxLength) {
    uint64_t n = 0;
    if (!decodeUint64(n)) return false;
    if (n > maxLength || n > remaining()) {
        failed_ = true;
        return false;
    }
    std::string t(n, '\0');
    if (!take(t.data(), n)) return false;
    s = std::move(t);
    return true;
}

}  // namespace zorl
