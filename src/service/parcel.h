// Parcel data with the byte layout of the platform's libbinder (Android 11+) for the
// primitives the companion service link uses. Pure: an encoder/decoder over a byte vector,
// so the host transport, the stand-in service and the fuzz target share it.
//
// Reads never go past the data: a read that does not fit fails without moving.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vigild {

class Parcel {
  public:
    // Exception codes of the reply header.
    static constexpr int32_t kExNone = 0;
    static constexpr int32_t kExSecurity = -1;
    static constexpr int32_t kExIllegalArgument = -3;
    static constexpr int32_t kExServiceSpecific = -8;
    static constexpr int32_t kExHasReplyHeader = -128;
    // The "SYST" header of an interface token: libbinder writes it from Android 11 on (a
    // vendor process writes "VNDR"); Android 10's token had no header word and does not match.
    static constexpr int32_t kInterfaceHeader = 0x53595354;

    Parcel() = default;
    explicit Parcel(std::vector<uint8_t> data) : data_(std::move(data)) {}

    const std::vector<uint8_t>& data() const { return data_; }
    size_t dataSize() const { return data_.size(); }
    size_t dataPosition() const { return pos_; }
    size_t dataAvail() const { return data_.size() - pos_; }
    // Clamped to the data size.
    void setDataPosition(size_t pos) { pos_ = pos < data_.size() ? pos : data_.size(); }

    // Writing (appends).
    void writeInt32(int32_t value);
    // Strict-mode policy with the gather bit, no work source, "SYST", the descriptor.
    void writeInterfaceToken(std::u16string_view descriptor);
    // Units, a 0 unit, zero padding to 4 bytes.
    void writeString16(std::u16string_view str);
    void writeNullString16();
    // Copies `size` bytes, zero-padded to a multiple of 4.
    void write(const void* data, size_t size);
    // The length, then each byte of `bytes` in the low byte of a 32-bit word of its own: how
    // the daemon's strings travel. Written in one pass straight into the data.
    void writeByteWords(std::string_view bytes);
    // Reply headers: a success header, or an exception with its message and no stack.
    void writeNoException();
    void writeException(int32_t code, std::u16string_view message);

    // Reading. readInt32 fails without moving when fewer than 4 bytes remain; the value
    // form then returns 0, as libbinder does.
    bool readInt32(int32_t* out);
    int32_t readInt32();
    // Consumes `size` rounded up to a multiple of 4; fails without moving when short.
    bool read(void* out, size_t size);
    // The reply header: 0 for none (an empty reply included), the -128 reply header skipped.
    // A non-zero code consumes its message and stack header.
    int32_t readExceptionCode();
    // The reverse of writeByteWords, for the service's side: the low byte of each word. Fails
    // without moving on a negative length or words that claim more than the data holds.
    bool readByteWords(std::string* out);
    // `units` 16-bit units (padded to 4 bytes), keeping the low byte of each; fails without
    // moving when they do not fit.
    bool readLowBytes(size_t units, std::string* out);
    // False on a short or malformed string; `isNull` tells a length of -1 apart.
    bool readString16(std::u16string* out, bool* isNull = nullptr);
    // The service side of writeInterfaceToken: true when the token names `descriptor`.
    bool enforceInterface(std::u16string_view descriptor);

  private:
    std::vector<uint8_t> data_;
    size_t pos_ = 0;
};

}  // namespace vigild
