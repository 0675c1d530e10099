#include "service/parcel.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace vigild {

namespace {

constexpr int32_t kStrictModePenaltyGather = static_cast<int32_t>(0x80000000u);
constexpr int32_t kUnsetWorkSource = -1;

// Sizes are padded in 64 bits so a huge claim cannot wrap.
constexpr uint64_t padSize(uint64_t size) { return (size + 3) & ~uint64_t{3}; }

}  // namespace

void Parcel::writeInt32(int32_t value) {
    const auto v = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; i++) data_.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void Parcel::write(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    data_.insert(data_.end(), bytes, bytes + size);
    data_.resize(static_cast<size_t>(padSize(data_.size())), 0);
}

void Parcel::writeByteWords(std::string_view bytes) {
    writeInt32(static_cast<int32_t>(bytes.size()));
    data_.reserve(data_.size() + 4 * bytes.size());
    // Built a slice at a time in a small buffer whose other three bytes of each word stay 0,
    // then appended: the data is written once, with no zero-filled copy of the whole.
    constexpr size_t kWords = 256;
    uint8_t slice[4 * kWords] = {};
    for (size_t at = 0; at < bytes.size(); at += kWords) {
        const size_t n = std::min(kWords, bytes.size() - at);
        for (size_t i = 0; i < n; i++) slice[4 * i] = static_cast<uint8_t>(bytes[at + i]);
        data_.insert(data_.end(), slice, slice + 4 * n);
    }
}

void Parcel::writeInterfaceToken(std::u16string_view descriptor) {
    writeInt32(kStrictModePenaltyGather);
    writeInt32(kUnsetWorkSource);
    writeInt32(kInterfaceHeader);
    writeString16(descriptor);
}

void Parcel::writeString16(std::u16string_view str) {
    writeInt32(static_cast<int32_t>(str.size()));
    for (char16_t unit : str) {
        data_.push_back(static_cast<uint8_t>(unit & 0xff));
        data_.push_back(static_cast<uint8_t>(unit >> 8));
    }
    data_.push_back(0);
    data_.push_back(0);
    data_.resize(static_cast<size_t>(padSize(data_.size())), 0);
}

void Parcel::writeNullString16() { writeInt32(-1); }

void Parcel::writeNoException() { writeInt32(kExNone); }

void Parcel::writeException(int32_t code, std::u16string_view message) {
    writeInt32(code);
    writeString16(message);
    writeInt32(0);  // no remote stack trace
}

bool Parcel::readInt32(int32_t* out) {
    if (dataAvail() < 4) return false;
    const uint8_t* p = data_.data() + pos_;
    *out =
        static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                             static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
    pos_ += 4;
    return true;
}

int32_t Parcel::readInt32() {
    int32_t value = 0;
    return readInt32(&value) ? value : 0;
}

bool Parcel::read(void* out, size_t size) {
    if (size > dataAvail()) return false;  // before padding, which would wrap near SIZE_MAX
    const uint64_t padded = padSize(size);
    if (padded > dataAvail()) return false;
    if (size > 0) std::memcpy(out, data_.data() + pos_, size);
    pos_ += static_cast<size_t>(padded);
    return true;
}

int32_t Parcel::readExceptionCode() {
    int32_t code = 0;
    // An empty reply is what a dead service leaves: the daemon reads it as success.
    if (!readInt32(&code)) return kExNone;
    if (code == kExHasReplyHeader) {
        const size_t start = pos_;
        int32_t size = 0;
        // The size counts itself; a size that cannot be right leaves nothing to read.
        if (!readInt32(&size) || size < 4 || static_cast<uint64_t>(size) > data_.size() - start) {
            pos_ = data_.size();
        } else {
            pos_ = start + static_cast<size_t>(size);
        }
        return kExNone;
    }
    if (code == kExNone) return kExNone;

    std::u16string message;
    readString16(&message);
    const size_t start = pos_;
    int32_t stackSize = 0;
    if (readInt32(&stackSize) && stackSize != 0) {
        if (stackSize < 4 || static_cast<uint64_t>(stackSize) > data_.size() - start) {
            pos_ = data_.size();
        } else {
            pos_ = start + static_cast<size_t>(stackSize);
        }
    }
    if (code == kExServiceSpecific) readInt32();
    return code;
}

bool Parcel::readByteWords(std::string* out) {
    const size_t start = pos_;
    int32_t n = 0;
    if (!readInt32(&n) || n < 0 || static_cast<uint64_t>(n) * 4 > dataAvail()) {
        pos_ = start;
        return false;
    }
    const uint8_t* p = data_.data() + pos_;
    out->resize(static_cast<size_t>(n));
    for (size_t i = 0; i < out->size(); i++) (*out)[i] = static_cast<char>(p[4 * i]);
    pos_ += 4 * static_cast<size_t>(n);
    return true;
}

bool Parcel::readLowBytes(size_t units, std::string* out) {
    if (units > dataAvail() / 2) return false;
    const uint64_t padded = padSize(uint64_t{units} * 2);
    if (padded > dataAvail()) return false;
    const uint8_t* p = data_.data() + pos_;
    out->resize(units);
    for (size_t i = 0; i < units; i++) (*out)[i] = static_cast<char>(p[2 * i]);
    pos_ += static_cast<size_t>(padded);
    return true;
}

bool Parcel::readString16(std::u16string* out, bool* isNull) {
    if (isNull != nullptr) *isNull = false;
    const size_t start = pos_;
    int32_t length = 0;
    if (!readInt32(&length)) return false;
    if (length == -1) {
        out->clear();
        if (isNull != nullptr) *isNull = true;
        return true;
    }
    // The units and their terminating 0 must fit in what remains.
    const uint64_t bytes = (static_cast<uint64_t>(length) + 1) * 2;
    if (length < 0 || length == std::numeric_limits<int32_t>::max() ||
        padSize(bytes) > dataAvail()) {
        pos_ = start;
        return false;
    }
    const uint8_t* p = data_.data() + pos_;
    const auto n = static_cast<size_t>(length);
    if (p[2 * n] != 0 || p[2 * n + 1] != 0) {
        pos_ = start;
        return false;
    }
    out->resize(n);
    for (size_t i = 0; i < n; i++) {
        (*out)[i] = static_cast<char16_t>(p[2 * i] | (p[2 * i + 1] << 8));
    }
    pos_ += static_cast<size_t>(padSize(bytes));
    return true;
}

bool Parcel::enforceInterface(std::u16string_view descriptor) {
    int32_t policy = 0;
    int32_t workSource = 0;
    int32_t header = 0;
    std::u16string name;
    if (!readInt32(&policy) || !readInt32(&workSource) || !readInt32(&header)) return false;
    if (header != kInterfaceHeader) return false;
    return readString16(&name) && name == descriptor;
}

}  // namespace vigild
