// The checksum usbd-host prints is how a transfer is judged byte-exact, so it must agree with
// every other SHA-256: the standard's vectors, the lengths around the padding's block boundary,
// and data fed in pieces that do not line up with blocks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sha256.h"

namespace {

using usbdhost::Sha256;

std::string digestOf(const std::string &data)
{
    Sha256 hash;
    hash.update(data.data(), data.size());
    return hash.finishHex();
}

TEST(Sha256, KnownAnswers)
{
    EXPECT_EQ(digestOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digestOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");

    // Lengths where the padding and the length field just fit, or spill into another block.
    const std::pair<size_t, const char *> boundaries[] = {
        {55, "463eb28e72f82e0a96c0a4cc53690c571281131f672aa229e0d45ae59b598b59"},
        {56, "da2ae4d6b36748f2a318f23e7ab1dfdf45acdc9d049bd80e59de82a60895f562"},
        {63, "29af2686fd53374a36b0846694cc342177e428d1647515f078784d69cdb9e488"},
        {64, "fdeab9acf3710362bd2658cdc9a29e8f9c757fcf9811603a8c447cd1d9151108"},
        {65, "4bfd2c8b6f1eec7a2afeb48b934ee4b2694182027e6d0fc075074f2fabb31781"},
        {119, "da18797ed7c3a777f0847f429724a2d8cd5138e6ed2895c3fa1a6d39d18f7ec6"},
        {120, "f52b23db1fbb6ded89ef42a23ce0c8922c45f25c50b568a93bf1c075420bbb7c"},
    };
    for (const auto &[size, digest] : boundaries) {
        SCOPED_TRACE(size);
        std::string data;
        for (size_t i = 0; i < size; ++i)
            data += char(i % 251);
        EXPECT_EQ(digestOf(data), digest);
    }
}

TEST(Sha256, PiecesOfAnySizeGiveTheSameDigest)
{
    // One million 'a', the standard's long vector, fed in pieces of 1, 63, 64, 65 and 4099 bytes
    // and with empty updates between them.
    const std::string million(1000000, 'a');
    const char *expected = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
    EXPECT_EQ(digestOf(million), expected);
    for (size_t piece : {size_t(1), size_t(63), size_t(64), size_t(65), size_t(4099)}) {
        SCOPED_TRACE(piece);
        Sha256 hash;
        for (size_t at = 0; at < million.size(); at += piece) {
            hash.update(million.data() + at, std::min(piece, million.size() - at));
            hash.update(nullptr, 0);
        }
        EXPECT_EQ(hash.finishHex(), expected);
    }
}

} // namespace
