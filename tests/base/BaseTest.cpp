// Reference counting, buffers, slices, the error family and the string
// type: the ground every other part of the libraries stands on.
#include "base/CBase.h"
#include "base/CMTRand.h"
#include "base/CTime.h"
#include "base/CError.h"
#include "base/CIOError.h"
#include "base/String.h"
#include "base/TBuffer.h"

#include "common/TestUtil.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using kordtest::expectThrows;
using kordtest::msg;
using zu::CInvalidArgError;
using zu::P;
using zu::String;
using zu::TBuffer;

namespace {

// Counts destructions; optionally takes and drops a reference while dying,
// as an object does that hands itself to a helper in its destructor.
class Tracked : public zu::CBase {
public:
    explicit Tracked(int* destroyed, std::uint32_t* countWhileDying = nullptr)
        : destroyed(destroyed), countWhileDying(countWhileDying)
    {
    }
    ~Tracked() override
    {
        ++*destroyed;
        if (countWhileDying) {
            *countWhileDying = getRefCount();
            addRef();
            release();
        }
    }

private:
    int* destroyed;
    std::uint32_t* countWhileDying;
};

class Derived : public Tracked {
public:
    using Tracked::Tracked;
};

class Shy : public zu::CBase {
public:
    bool checkCastAllowed(const std::type_info&) const override { return false; }
};

std::string bytesOf(const TBuffer<unsigned char>& b)
{
    return std::string(reinterpret_cast<const char*>(b.getData()), static_cast<std::size_t>(b.getUsed()));
}

// Fresh memory of exactly `capacity` bytes holding `text`.
void setText(TBuffer<unsigned char>& b, const std::string& text, long long capacity)
{
    b.freeMemory();
    b.alloc(capacity);
    b.assign(reinterpret_cast<const unsigned char*>(text.data()), static_cast<long long>(text.size()));
    ASSERT_EQ(b.getAllocated(), capacity);
}

// Watches every byte buffer allocation just before it is freed, so that the
// wipe of key material is checked without reading freed memory.
class FreeProbe : public zu::TCryptBuffer<unsigned char> {
public:
    struct Seen {
        std::size_t bytes;
        bool allZero;
    };
    static std::vector<Seen>& seen()
    {
        static std::vector<Seen> list;
        return list;
    }
    // Switching on starts a fresh record; switching off keeps it for checking.
    static void install(bool on)
    {
        if (on) seen().clear();
        freeObserver = on ? &observe : nullptr;
    }

private:
    static void observe(const unsigned char* p, std::size_t bytes)
    {
        bool zero = true;
        for (std::size_t i = 0; i < bytes; ++i) zero = zero && p[i] == 0;
        seen().push_back({bytes, zero});
    }
};

template <class A, class B, class = void>
struct CanAdd : std::false_type {};
template <class A, class B>
struct CanAdd<A, B, std::void_t<decltype(std::declval<A>() + std::declval<B>())>> : std::true_type {};

} // namespace

TEST(RefCount, countStartsAtOneAndLastReleaseDeletesOnce)
{
    int destroyed = 0;
    auto* t = new Tracked(&destroyed);
    EXPECT_EQ(t->getRefCount(), 1u);
    t->addRef();
    t->release();
    EXPECT_EQ(destroyed, 0);
    t->release();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCount, referenceTakenDuringDestructionDoesNotDeleteTwice)
{
    int destroyed = 0;
    std::uint32_t countInside = 0;
    P<Tracked> p = zu::newObj<Tracked>(&destroyed, &countInside);
    p = nullptr;
    // Under the address sanitizer a second deletion would abort here.
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(countInside, zu::CBase::destructionBias);
}

TEST(SmartPointer, copyMoveAssignAndAdopt)
{
    int destroyed = 0;
    P<Tracked> a = zu::newObj<Tracked>(&destroyed);
    EXPECT_EQ(a->getRefCount(), 1u) << "newObj must adopt the initial reference";
    {
        P<Tracked> b = a;
        EXPECT_EQ(a->getRefCount(), 2u);
        P<Tracked> c = std::move(b);
        EXPECT_EQ(b.get(), nullptr);
        EXPECT_EQ(a->getRefCount(), 2u);
        P<Tracked> raw(a.get());
        EXPECT_EQ(a->getRefCount(), 3u) << "a raw pointer handed to P gains a reference";
    }
    EXPECT_EQ(a->getRefCount(), 1u);
    a = a; // self-assignment keeps the object
    EXPECT_EQ(destroyed, 0);

    P<zu::CBase> base = P<Derived>(zu::newObj<Derived>(&destroyed));
    EXPECT_EQ(base->getRefCount(), 1u);
    a = zu::newObj<Tracked>(&destroyed);
    EXPECT_EQ(destroyed, 1) << "assignment releases the old object";
    Tracked* detached = a.detach();
    EXPECT_EQ(destroyed, 1);
    detached->release();
    base.reset();
    EXPECT_EQ(destroyed, 3);
}

TEST(SmartPointer, tryCastChecksTypeAndPermission)
{
    int destroyed = 0;
    P<Tracked> d = zu::newObj<Derived>(&destroyed);
    zu::IBase* asBase = d.get();
    EXPECT_EQ(zu::tryCast<Derived>(asBase), d.get());
    EXPECT_EQ(zu::tryCast<Tracked>(asBase), d.get());
    EXPECT_EQ(zu::tryCast<Shy>(asBase), nullptr);
    EXPECT_EQ(zu::tryCast<Derived>(static_cast<zu::IBase*>(nullptr)), nullptr);
    P<Shy> shy = zu::newObj<Shy>();
    EXPECT_EQ(zu::tryCast<Shy>(static_cast<zu::IBase*>(shy.get())), nullptr);
}

TEST(Buffer, alignmentOfEveryAllocation)
{
    TBuffer<unsigned char> b(10, 4096);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.getData()) % 4096, 0u);
    b.ensureAllocated(100000);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.getData()) % 4096, 0u) << "growth keeps the alignment";
    TBuffer<unsigned char> copy(b);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(copy.getData()) % 4096, 0u) << "a copy keeps the alignment";

    TBuffer<unsigned int> words;
    words.setAllocAlignBytes(512);
    words.setUsed(3);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(words.getData()) % 512, 0u);
    for (int bad : {0, -4, 3, 4097}) expectThrows<CInvalidArgError>([&] { words.setAllocAlignBytes(bad); });
}

TEST(Buffer, growthTakesLargerOfNeedAndFactor)
{
    TBuffer<unsigned char> b;
    b.alloc(100);
    b.ensureAllocated(101);
    EXPECT_EQ(b.getAllocated(), 150) << "default factor 1.5";
    b.ensureAllocated(400);
    EXPECT_EQ(b.getAllocated(), 400) << "the need wins over the factor";
    b.ensureAllocated(400);
    EXPECT_EQ(b.getAllocated(), 400);
    b.setMinGrowFactor(2.0);
    b.setUsed(401);
    EXPECT_EQ(b.getAllocated(), 800);
    b.setMinGrowFactor(0.5);
    EXPECT_EQ(b.getMinGrowFactor(), 1.0) << "a shrinking factor is refused";
    b.ensureFree(b.getFree() + 1);
    EXPECT_EQ(b.getAllocated(), 801);

    // Corrupt sizes fail before anything is allocated.
    expectThrows<CInvalidArgError>([&] { b.setUsed(-1); });
    expectThrows<CInvalidArgError>([&] { b.alloc(1LL << 50); });
    EXPECT_EQ(b.getUsed(), 401);
}

TEST(Buffer, attachNoDeleteWrapsForeignMemory)
{
    std::vector<unsigned char> foreign = {1, 2, 3, 4};
    {
        TBuffer<unsigned char> b;
        b.attachNoDelete(foreign.data(), 4);
        EXPECT_EQ(b.getData(), foreign.data());
        b[0] = 9;
        EXPECT_EQ(foreign[0], 9);
        unsigned char five = 5;
        b.append(&five, 1); // beyond the foreign memory: moves to its own
        EXPECT_NE(b.getData(), foreign.data());
        b[1] = 7;
        EXPECT_EQ(foreign[1], 2);
        EXPECT_EQ(bytesOf(b), std::string("\x09\x07\x03\x04\x05", 5));
    } // must not free the vector's memory
    EXPECT_EQ(foreign[3], 4);
}

TEST(Buffer, editsWithSourceInsideTheBuffer)
{
    TBuffer<unsigned char> b;
    setText(b, "abcdef", 100);
    b.insert(0, b.getData() + 2, 2); // the tail shift moves the source
    EXPECT_EQ(bytesOf(b), "cdabcdef");

    setText(b, "abcdef", 100);
    b.insert(3, b.getData() + 1, 4); // the source straddles the insert point
    EXPECT_EQ(bytesOf(b), "abcbcdedef");

    setText(b, "abcdef", 6);
    b.append(b.getData(), b.getUsed()); // growth frees the source
    EXPECT_EQ(bytesOf(b), "abcdefabcdef");

    b.assign(b.getData() + 2, 3);
    EXPECT_EQ(bytesOf(b), "cde");
    b.eraseFromStart(1);
    EXPECT_EQ(bytesOf(b), "de");
    expectThrows<CInvalidArgError>([&] { b.eraseFromStart(3); });
    expectThrows<CInvalidArgError>([&] { b.insert(3, b.getData(), 1); });
    expectThrows<CInvalidArgError>([&] { b.insert(0, b.getData(), -1); });
    TBuffer<unsigned char> empty;
    empty.eraseFromStart(0);
    EXPECT_TRUE(empty.isEmpty());
}

TEST(Buffer, compareCopyAndMove)
{
    TBuffer<unsigned char> a;
    TBuffer<unsigned char> b;
    setText(a, "abc", 3);
    setText(b, "abd", 10);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_NE(a, b);
    b[2] = 'c';
    EXPECT_EQ(a, b) << "capacity does not take part in equality";
    TBuffer<unsigned char> moved;
    const unsigned char* memory = b.getData();
    moved.move(b);
    EXPECT_EQ(moved.getData(), memory);
    EXPECT_EQ(b.getUsed(), 0);
    EXPECT_EQ(b.getAllocated(), 0);
    EXPECT_EQ(bytesOf(moved), "abc");
}

TEST(CryptBuffer, wipesWholeAllocationOnGrowthAndFree)
{
    FreeProbe::install(true);
    {
        zu::TCryptBuffer<unsigned char> key;
        std::vector<unsigned char> secret(32, 0xA5);
        key.assign(secret.data(), 32);
        key.ensureAllocated(1000);
        ASSERT_EQ(FreeProbe::seen().size(), 1u);
        EXPECT_EQ(FreeProbe::seen()[0].bytes, 32u);
        EXPECT_TRUE(FreeProbe::seen()[0].allZero) << "the old allocation is wiped on growth";
        EXPECT_EQ(key[31], 0xA5) << "the contents move to the new allocation";
        key.insert(0, key.getData(), 32); // the temporary copy holds key bytes too
        key.setAllocAlignBytes(64);
        key.alloc(2000);
    }
    zu::TCryptBuffer<unsigned char> freed(16);
    freed.setUsedFill(16, 0x5A);
    freed.freeMemory();
    ASSERT_GE(FreeProbe::seen().size(), 5u);
    for (const auto& s : FreeProbe::seen()) EXPECT_TRUE(s.allZero) << s.bytes << " bytes left unwiped";
    EXPECT_EQ(FreeProbe::seen().back().bytes, 16u);

    // The probe sees real contents: an ordinary buffer is not wiped.
    FreeProbe::install(true);
    {
        TBuffer<unsigned char> plain(8);
        plain.setUsedFill(8, 0x11);
    }
    FreeProbe::install(false);
    ASSERT_EQ(FreeProbe::seen().size(), 1u);
    EXPECT_FALSE(FreeProbe::seen()[0].allZero);
}

TEST(BufferSlice, boundsAndMessages)
{
    P<TBuffer<unsigned char>> b = zu::newObj<TBuffer<unsigned char>>(10);
    zu::TConstBufferSlice<unsigned char> whole(b.get(), 0, -1);
    EXPECT_EQ(whole.getLength(), 10);
    EXPECT_EQ(zu::TConstBufferSlice<unsigned char>(b.get(), 10, -1).getLength(), 0);
    EXPECT_EQ(zu::TConstBufferSlice<unsigned char>(b.get(), 4, 6).getData(), b->getData() + 4);

    auto e = expectThrows<CInvalidArgError>([&] { zu::TConstBufferSlice<unsigned char>(b.get(), 5, 6); });
    EXPECT_EQ(msg(e), "Invalid argument passed to 'TConstBufferSlice constructor': Invalid start/length.");
    EXPECT_EQ(e.getProp("start"), "5");
    EXPECT_EQ(e.getProp("length"), "6");
    EXPECT_EQ(e.getProp("bufferSize"), "10");
    for (auto range : {std::pair<long long, long long>{11, -1}, {-1, 2}, {2, -2}, {0, 11}, {LLONG_MAX, 1}}) {
        expectThrows<CInvalidArgError>([&] { zu::TConstBufferSlice<unsigned char>(b.get(), range.first, range.second); });
    }

    EXPECT_EQ(zu::TConstBufferSlice<unsigned char>(nullptr, 0, -1).getLength(), 0);
    auto n = expectThrows<CInvalidArgError>([] { zu::TConstBufferSlice<unsigned char>(nullptr, 0, 1); });
    EXPECT_EQ(msg(n), "Invalid argument passed to 'TConstBufferSlice constructor': Invalid start/length for NULL buffer.");
    EXPECT_EQ(n.getProp("length"), "1");
    EXPECT_TRUE(n.getProps().has("start"));

    // The slice keeps its buffer alive.
    b->setUsedFill(10, 0x42);
    b = nullptr;
    EXPECT_EQ(whole.getData()[9], 0x42);
}

TEST(Errors, ioErrorStandardMessages)
{
    const char* expected[] = {
        "Unknown I/O error.",
        "Error opening file or stream.",
        "Error reading data.",
        "Error writing data.",
        "Unexpected end of data.",
        "The data is invalid or corrupted.",
        "Unsupported or invalid data version.",
        "Error seeking to new position.",
        "Error moving a file.",
        "Error deleting a file.",
        "Error: stream has been closed.",
        "Error: stream position is not aligned correctly.",
        "Error: buffer passed to stream is not aligned correctly.",
        "Error changing the size of a file.",
    };
    for (int code = 0; code <= 13; ++code) {
        zu::CIOError e(code);
        EXPECT_EQ(msg(e), expected[code]) << code;
        EXPECT_STREQ(e.what(), expected[code]);
        EXPECT_EQ(e.getCode(), code);
        EXPECT_EQ(e.getDomain(), "IO");
    }
    EXPECT_EQ(msg(zu::CIOError(20)), "");
    EXPECT_EQ(msg(zu::CIOError(-1)), "");
    EXPECT_EQ(msg(zu::CIOError(zu::CIOError::codeEndOfData, "Short header.")), "Short header.");
}

TEST(Errors, invalidArgMessageFormat)
{
    CInvalidArgError e("f", "bad", zu::CProps().set("n", 7));
    EXPECT_EQ(msg(e), "Invalid argument passed to 'f': bad.");
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getDomain(), "");
    EXPECT_EQ(e.getWhere(), "f");
    EXPECT_EQ(e.getProp("n"), "7");
    EXPECT_EQ(e.getProp("missing"), "");
}

TEST(Errors, cloneAndThrowCloneKeepTypeAndCauses)
{
    CInvalidArgError root("g", "root");
    zu::CIOError io(zu::CIOError::codeInvalidData, "", zu::CProps().set("uri", "file:///x"), &root);
    zu::CError top("Outer failure.", "Disk", 17, zu::CProps(), &io);

    std::unique_ptr<zu::CError> copy(top.clone());
    ASSERT_NE(copy->getCause(), nullptr);
    const auto* ioCause = dynamic_cast<const zu::CIOError*>(copy->getCause());
    ASSERT_NE(ioCause, nullptr) << "the cause keeps its most-derived type";
    EXPECT_NE(ioCause, &io) << "the cause is owned by copy";
    ASSERT_NE(dynamic_cast<const CInvalidArgError*>(ioCause->getCause()), nullptr);
    EXPECT_EQ(copy->toString(),
              "Outer failure. <- The data is invalid or corrupted. uri=file:///x <- Invalid argument passed to 'g': root.");

    const zu::CError& asBase = io;
    try {
        asBase.throwClone();
        FAIL() << "throwClone returned";
    } catch (const zu::CIOError& caught) {
        EXPECT_EQ(caught.getCode(), 5);
        EXPECT_EQ(caught.getProp("uri"), "file:///x");
        EXPECT_NE(dynamic_cast<const CInvalidArgError*>(caught.getCause()), nullptr);
    }
    std::unique_ptr<zu::CError> argCopy(static_cast<const zu::CError&>(root).clone());
    EXPECT_NE(dynamic_cast<CInvalidArgError*>(argCopy.get()), nullptr);

    std::runtime_error foreign("disk on fire");
    zu::CError wrapped("Wrapped.", "", -1, zu::CProps(), &foreign);
    ASSERT_NE(wrapped.getCause(), nullptr);
    EXPECT_EQ(msg(*wrapped.getCause()), "disk on fire");
}

TEST(Strings, strictUtf8Decoding)
{
    String out;
    for (const char* bad : {"\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF", // overlong
                            "\xED\xA0\x80", "\xED\xBF\xBF",                          // surrogates
                            "\xE2\x82", "\xF0\x9F\x98", "a\xC3",                      // truncated
                            "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF8\x88\x80\x80\x80", // above U+10FFFF
                            "\x80", "\xC3\x28", "\xFF"}) {
        std::string bytes(bad);
        EXPECT_FALSE(String::tryFromUTF8(bytes.data(), bytes.size(), out)) << bytes;
        EXPECT_EQ(String::fromUTF8(bytes.data(), bytes.size()), "");
    }
    std::string good("a\0b\xE2\x82\xAC\xF4\x8F\xBF\xBF\xF0\x9F\x98\x80", 14);
    ASSERT_TRUE(String::tryFromUTF8(good.data(), good.size(), out));
    ASSERT_EQ(out.length(), 6u) << "the NUL is kept as a character";
    EXPECT_EQ(static_cast<unsigned>(out[1].GetValue()), 0u);
    EXPECT_EQ(static_cast<unsigned>(out[3].GetValue()), 0x20ACu);
    EXPECT_EQ(static_cast<unsigned>(out[4].GetValue()), 0x10FFFFu);
    EXPECT_EQ(out.toUTF8(), good);
    EXPECT_EQ(String("\xC3\xA9t\xC3\xA9"), String(L"\u00e9t\u00e9")) << "narrow literals are UTF-8";
}

TEST(Strings, latin1RoundTripAndNumbersNeverAppended)
{
    std::string all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
    String text = String::fromLatin1(all.data(), all.size());
    ASSERT_EQ(text.length(), 256u);
    EXPECT_EQ(text.toLatin1(), all);
    EXPECT_EQ(String(L"\u20ac1").toLatin1(), "?1");

    static_assert(!CanAdd<String, int>::value, "String + int must not compile");
    static_assert(!CanAdd<String, long long>::value, "String + long long must not compile");
    static_assert(!CanAdd<String, unsigned long>::value, "String + size_t must not compile");
    static_assert(!CanAdd<String, short>::value, "String + short must not compile");
    static_assert(CanAdd<String, const char*>::value && CanAdd<const char*, String>::value, "text concatenation");
    static_assert(std::is_same<decltype(std::declval<const char*>() + std::declval<String>()), String>::value,
                  "concatenation keeps the zu type");
    EXPECT_EQ("n=" + zu::toString(-5LL) + "," + zu::toHexString(0xfffffffeu) + "," + zu::toHexString(0), "n=-5,fffffffe,0");
    EXPECT_TRUE(String("Create").equalsIgnoreCaseASCII("cREATE"));
    EXPECT_FALSE(String(L"\u00c9").equalsIgnoreCaseASCII(String(L"\u00e9")));
}

TEST(Random, referenceSequenceAndSystemMixedBytes)
{
    zu::CMTRand reference(5489);
    std::uint32_t value = 0;
    for (int i = 0; i < 10000; ++i) value = reference.rand32();
    EXPECT_EQ(value, 4123659995u) << "the 10000th output of MT19937 with its default seed";

    zu::CMTRand a(1), b(1);
    unsigned char bytes[7];
    a.randData(bytes, 7);
    std::uint32_t w0 = b.rand32(), w1 = b.rand32();
    EXPECT_EQ(bytes[0], w0 & 0xFF) << "words are spent little-endian";
    EXPECT_EQ(bytes[3], w0 >> 24);
    EXPECT_EQ(bytes[6], (w1 >> 16) & 0xFF);

    // Generators seeded by the system, and zu::randData from several threads at once.
    zu::CMTRand s1, s2;
    EXPECT_FALSE(s1.rand32() == s2.rand32() && s1.rand32() == s2.rand32());
    std::vector<std::vector<unsigned char>> out(4, std::vector<unsigned char>(33));
    std::vector<std::thread> threads;
    for (auto& o : out)
        threads.emplace_back([&o] {
            for (int i = 0; i < 200; ++i) zu::randData(o.data(), 33);
        });
    for (auto& t : threads) t.join();
    EXPECT_NE(out[0], out[1]);
    EXPECT_NE(out[0], std::vector<unsigned char>(33, 0));
    expectThrows<CInvalidArgError>([] { zu::randData(nullptr, 1); });
    expectThrows<CInvalidArgError>([&] { a.randData(bytes, -1); });

    long long t0 = zu::CTime::monotonicMicros();
    EXPECT_GT(zu::CTime::now().getMicrosSinceEpoch(), 1577836800LL * 1000000) << "after 2020";
    EXPECT_GE(zu::CTime::monotonicMicros(), t0);
}
