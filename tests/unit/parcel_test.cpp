#include "service/parcel.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

using vigild::Parcel;

// A parcel to read, holding these words.
Parcel ofWords(std::initializer_list<int32_t> words) {
    Parcel w;
    for (int32_t v : words) w.writeInt32(v);
    return Parcel(w.data());
}

TEST(ParcelTest, String16LayoutIsPaddedWithATerminator) {
    // The even-length layout is pinned by the interface token (ivd_service_test).
    Parcel q;
    q.writeString16(u"\u0142");
    EXPECT_EQ(q.data(), (std::vector<uint8_t>{1, 0, 0, 0, 0x42, 0x01, 0, 0}));
    Parcel r(std::vector<uint8_t>{2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0});
    std::u16string out;
    EXPECT_TRUE(r.readString16(&out));
    EXPECT_EQ(out, u"ab");
    EXPECT_EQ(r.dataAvail(), 0u);
}

TEST(ParcelTest, ShortReadsFailWithoutMoving) {
    Parcel p(std::vector<uint8_t>{1, 2, 3, 4, 5, 6});
    EXPECT_EQ(p.readInt32(), 0x04030201);
    int32_t v = 77;
    EXPECT_FALSE(p.readInt32(&v));
    EXPECT_EQ(p.readInt32(), 0);  // libbinder's value for a failed read
    EXPECT_EQ(p.dataPosition(), 4u);
    uint8_t buf[3] = {};
    EXPECT_FALSE(p.read(buf, 3));  // 3 bytes consume 4, only 2 remain
    EXPECT_EQ(p.dataPosition(), 4u);
    EXPECT_FALSE(p.read(buf, 2));  // the padding must be there too
    EXPECT_EQ(p.dataPosition(), 4u);
    EXPECT_FALSE(p.read(buf, SIZE_MAX));  // no wrap-around
}

TEST(ParcelTest, String16LengthClaimsAreBounded) {
    for (int32_t n : {INT_MAX, INT_MAX / 2, 5, -2}) {
        Parcel r = ofWords({n, 0x00620061});
        std::u16string out;
        EXPECT_FALSE(r.readString16(&out)) << n;
        EXPECT_EQ(r.dataPosition(), 0u);
    }
    Parcel w;
    w.writeNullString16();
    Parcel r(w.data());
    std::u16string out = u"x";
    bool isNull = false;
    EXPECT_TRUE(r.readString16(&out, &isNull));
    EXPECT_TRUE(isNull);
    EXPECT_EQ(out, u"");
}

TEST(ParcelTest, ExceptionHeaders) {
    EXPECT_EQ(Parcel().readExceptionCode(), 0);

    Parcel ex;
    ex.writeException(-3, u"bad argument");
    ex.writeInt32(55);
    Parcel r(ex.data());
    EXPECT_EQ(r.readExceptionCode(), -3);
    EXPECT_EQ(r.readInt32(), 55);  // message and stack header consumed

    Parcel withStack;
    withStack.writeInt32(-1);
    withStack.writeString16(u"m");
    withStack.writeInt32(8);  // counts itself and one more word
    withStack.writeInt32(123);
    withStack.writeInt32(56);
    Parcel s(withStack.data());
    EXPECT_EQ(s.readExceptionCode(), -1);
    EXPECT_EQ(s.readInt32(), 56);

    Parcel h = ofWords({-128, 8, 1, 57});
    EXPECT_EQ(h.readExceptionCode(), 0);
    EXPECT_EQ(h.readInt32(), 57);

    // A reply header size below its own or beyond the data leaves nothing to read.
    for (int32_t size : {-8, 4000}) {
        Parcel b = ofWords({-128, size, 7});
        EXPECT_EQ(b.readExceptionCode(), 0);
        EXPECT_EQ(b.dataAvail(), 0u) << size;
    }
}

}  // namespace
