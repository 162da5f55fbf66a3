// The in-memory form of a VMDK text descriptor: the ordered list of its
// lines, typed accessors for the keys the library uses, and the writer.
//
// Keys are matched without regard to letter case; when a key occurs more
// than once, the first occurrence is read and changed. Lines the library
// does not understand, comments included, survive a load/store round trip
// unchanged and in order.
#pragma once

#include "base/TBuffer.h"
#include "base/TContainers.h"
#include "descriptor/CVMDKDescriptorEntry.h"
#include "descriptor/CVMDKExtentInfo.h"
#include "format/IVMDKDescriptorText.h"

namespace kord {

class CVMDKDescriptor : public zu::CBase, public IVMDKDescriptorText {
public:
    // A "name=value" line. Names starting with "ddb." are written with blanks
    // around the "=", all others without.
    class CNameValueEntry : public CVMDKDescriptorEntry {
    public:
        CNameValueEntry(const zu::String& name, const zu::String& value, bool quoted);
        // The entry, or null when the line is not a name/value line.
        static zu::P<CNameValueEntry> tryParseDescriptorLine(const zu::String& line);
        zu::String toString() const override;
        zu::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

        zu::String name;
        zu::String value;
        bool quoted;
    };

    // Any other line (comments, blank lines, lines we do not understand),
    // kept verbatim.
    class CGenericEntry : public CVMDKDescriptorEntry {
    public:
        explicit CGenericEntry(const zu::String& line) : line(line) {}
        zu::String toString() const override { return line; }
        zu::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

        zu::String line;
    };

    CVMDKDescriptor() = default;
    // Parses raw descriptor bytes up to the first NUL. Never fails on
    // content: the text is decoded as UTF-8 (whatever an "encoding" line
    // says), and text that is not valid UTF-8 gives a descriptor without
    // lines. Linear in the size of the text.
    explicit CVMDKDescriptor(const zu::TBuffer<unsigned char>& data);
    CVMDKDescriptor(const CVMDKDescriptor&) = delete;
    // Replaces the lines by deep copies of the other's. Assigning a
    // descriptor to itself leaves it empty.
    CVMDKDescriptor& operator=(const CVMDKDescriptor& other);

    // The file the descriptor was read from, named ("uri") in the errors
    // of the typed getters; empty for a descriptor made in memory.
    void setSourceURI(const zu::CURI& uri) { sourceURI = uri; }
    const zu::CURI& getSourceURI() const { return sourceURI; }

    bool hasValue(const zu::String& name) const;
    bool tryGetValue(const zu::String& name, zu::String& value) const;
    // Throws zu::CError "VMDK descriptor value '<name>' not found." when absent.
    zu::String getValue(const zu::String& name) const;
    // Changes the first entry of that name (keeping its spelling and its
    // quoting), or adds a new one: at the header position when atHeader,
    // else at the end.
    void setValue(const zu::String& name, const zu::String& value, bool quoted, bool atHeader);
    void addGenericLine(const zu::String& line, bool atHeader);
    // Adds the entry itself (shared, not copied) after the last line.
    void addExtentEntry(CVMDKExtentInfo* extent);
    // Appends the extent lines, in order (the entries themselves).
    void getExtentEntries(zu::TArray<zu::P<CVMDKExtentInfo>>& out) const;

    // Every line followed by "\n".
    zu::String toString() const;
    // Sets "encoding" to UTF-8, then writes the UTF-8 text and zero padding
    // from padBuffer, exactly targetSize bytes. A text longer than that is
    // zu::CIOError code 5 naming the stream's file, and nothing is written.
    void store(zu::IOutStream& stream, int targetSize, const zu::TBuffer<unsigned char>& padBuffer) override;
    // The bytes store writes before its padding ("encoding" set to UTF-8).
    std::string toStoredText();
    // Refuses, as store does, a stored text that does not fit its room in
    // the file at uri: zu::CIOError code 5.
    static void checkRoom(long long storedBytes, long long roomBytes, const zu::CURI& uri);

    int getEntryCount() const { return static_cast<int>(entries.size()); }
    CVMDKDescriptorEntry* getEntry(int index) const { return entries[static_cast<size_t>(index)]; }
    int getHeaderInsertIndex() const { return headerInsertIndex; }

    // The typed getters below throw zu::CIOError code 5 naming the key and
    // the file when a value does not parse as its type.
    int getVersion() const;
    void setVersion(int version);
    unsigned getContentID() const;
    void setContentID(unsigned contentID);
    // 0xFFFFFFFF (no parent) when the key is missing.
    unsigned getParentContentID() const;
    void setParentContentID(unsigned contentID);
    zu::String getCreateType() const;
    void setCreateType(const zu::String& type);
    zu::String getParentFileNameHint() const;
    bool tryGetParentFileNameHint(zu::String& hint) const;
    void setParentFileNameHint(const zu::String& hint);
    zu::String getAdapterType() const;
    void setAdapterType(const zu::String& type);
    long long getGeometrySectors() const;
    long long getGeometryHeads() const;
    long long getGeometryCylinders() const;
    void setGeometrySectors(long long sectors);
    void setGeometryHeads(long long heads);
    void setGeometryCylinders(long long cylinders);
    // False when the key is missing.
    bool getZuCreateExtentFilesOnDemand() const;
    void setZuCreateExtentFilesOnDemand(bool onDemand);
    // Empty when the key is missing (the disk is not encrypted).
    zu::String getZuEncryptionAlgorithm() const;
    void setZuEncryptionAlgorithm(const zu::String& name);
    zu::String getZuEncryptionKeyHashAlgorithm() const;
    void setZuEncryptionKeyHashAlgorithm(const zu::String& name);
    zu::String getZuEncryptionKeyDerivationAlgorithm() const;
    void setZuEncryptionKeyDerivationAlgorithm(const zu::String& name);
    zu::TBuffer<unsigned char> getZuEncryptionIV() const;
    void setZuEncryptionIV(const zu::TBuffer<unsigned char>& iv);
    zu::TBuffer<unsigned char> getZuEncryptedEncryptionKey() const;
    void setZuEncryptedEncryptionKey(const zu::TBuffer<unsigned char>& key);
    zu::TBuffer<unsigned char> getZuEncryptionKeyHash() const;
    void setZuEncryptionKeyHash(const zu::TBuffer<unsigned char>& hash);
    zu::TBuffer<unsigned char> getZuEncryptionKeyDerivationSalt() const;
    void setZuEncryptionKeyDerivationSalt(const zu::TBuffer<unsigned char>& salt);
    void setEncodingUTF8();

    // The data key wrapped under a password: the derivation of the
    // password's key, its salt and the wrapped key. While a disk's password
    // is being changed it carries a second wrapping, for the new password,
    // as the descriptor's last lines ("zuEncNextKeyDerivAlg",
    // "zuEncNextKeyDerivSalt", "zuEncNextEncKey"), so that it opens with
    // either password. A wrapping cut short by an interrupted store reads
    // as one that no password unwraps.
    struct CKeyWrapping {
        zu::String derivationAlgorithm;
        zu::TBuffer<unsigned char> salt;
        zu::TBuffer<unsigned char> wrappedKey;
    };
    CKeyWrapping getZuKeyWrapping() const;
    void setZuKeyWrapping(const CKeyWrapping& wrapping);
    bool hasZuNextKeyWrapping() const;
    CKeyWrapping getZuNextKeyWrapping() const;
    void setZuNextKeyWrapping(const CKeyWrapping& wrapping);
    void removeZuNextKeyWrapping();
    // Removes every line of that name.
    void removeValue(const zu::String& name);

private:
    CNameValueEntry* findEntry(const zu::String& name) const;
    void parse(const char* text, size_t length);
    static zu::P<CVMDKDescriptorEntry> parseLine(const zu::String& line);
    zu::CProps sourceProps() const;
    // parse(value), with a value it refuses reported as damage in the file:
    // "VMDK descriptor value '<name>' is not <expected>: '<value>'."
    template <class Parse>
    auto parsed(const char* name, const zu::String& value, const char* expected, Parse parse) const
        -> decltype(parse(value));

    std::vector<zu::P<CVMDKDescriptorEntry>> entries;
    int headerInsertIndex = 0;
    zu::CURI sourceURI;
};

} // namespace kord
