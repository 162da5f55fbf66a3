#include "descriptor/CVMDKDescriptor.h"

#include "base/CError.h"
#include "base/CIOError.h"
#include "base/Parse.h"
#include "format/VMDKMarker.h"

#include <climits>
#include <cstring>

namespace kord {

namespace {

const char* const keyVersion = "version";
const char* const keyContentID = "CID";
const char* const keyParentContentID = "parentCID";
const char* const keyCreateType = "createType";
const char* const keyParentFileNameHint = "parentFileNameHint";
const char* const keyAdapterType = "ddb.adapterType";
const char* const keyGeometrySectors = "ddb.geometry.sectors";
const char* const keyGeometryHeads = "ddb.geometry.heads";
const char* const keyGeometryCylinders = "ddb.geometry.cylinders";
const char* const keyOnDemand = "zuCreateExtentFilesOnDemand";
const char* const keyEncAlg = "zuEncAlg";
const char* const keyEncKeyHashAlg = "zuEncKeyHashAlg";
const char* const keyEncKeyDerivAlg = "zuEncKeyDerivAlg";
const char* const keyEncIV = "zuEncIV";
const char* const keyEncEncKey = "zuEncEncKey";
const char* const keyEncKeyHash = "zuEncKeyHash";
const char* const keyEncKeyDerivSalt = "zuEncKeyDerivSalt";
const char* const keyEncNextKeyDerivAlg = "zuEncNextKeyDerivAlg";
const char* const keyEncNextKeyDerivSalt = "zuEncNextKeyDerivSalt";
const char* const keyEncNextEncKey = "zuEncNextEncKey";
const char* const keyEncoding = "encoding";

long long parseDecimal(const zu::String& text) { return zu::parseInt64(text, false); }

zu::TBuffer<unsigned char> parseHexBytes(const zu::String& text) { return zu::hexDecode(text); }

zu::String trimmed(const zu::String& text)
{
    zu::String out(text);
    out.Trim(true);
    out.Trim(false);
    return out;
}

} // namespace

CVMDKDescriptor::CNameValueEntry::CNameValueEntry(const zu::String& name, const zu::String& value, bool quoted)
    : name(name), value(value), quoted(quoted)
{
}

zu::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::CNameValueEntry::tryParseDescriptorLine(const zu::String& line)
{
    size_t equals = line.find(L'=');
    if (equals == zu::String::npos) return nullptr;
    zu::String name = trimmed(line.substr(0, equals));
    zu::String value = trimmed(line.substr(equals + 1));
    if (name.empty() || name.find(L' ') != zu::String::npos) return nullptr;
    bool quoted = false;
    if (!value.empty() && value[0] == L'"' && value[value.length() - 1] == L'"') {
        quoted = true;
        value = value.length() >= 2 ? zu::String(value.substr(1, value.length() - 2)) : zu::String();
    }
    return zu::newObj<CNameValueEntry>(name, value, quoted);
}

zu::String CVMDKDescriptor::CNameValueEntry::toString() const
{
    // Disk database keys are conventionally written with blanks around "=".
    zu::String separator(name.StartsWith("ddb.") ? " = " : "=");
    return quoted ? name + separator + "\"" + value + "\"" : name + separator + value;
}

zu::P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const
{
    return zu::newObj<CNameValueEntry>(name, value, quoted);
}

zu::P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const
{
    return zu::newObj<CGenericEntry>(line);
}

CVMDKDescriptor::CVMDKDescriptor(const zu::TBuffer<unsigned char>& data)
{
    long long length = 0;
    const auto* bytes = reinterpret_cast<const char*>(data.getData());
    while (length < data.getUsed() && bytes[length] != '\0') ++length;
    if (length > 0) parse(bytes, static_cast<size_t>(length));
}

// Line by line, so that the decoded text is never held whole beside its
// lines (in memory each character takes four bytes). A line feed is never
// part of a longer UTF-8 sequence, so splitting before decoding gives the
// same lines as splitting after.
void CVMDKDescriptor::parse(const char* text, size_t length)
{
    size_t start = 0;
    while (true) {
        const void* found = std::memchr(text + start, '\n', length - start);
        size_t end = found ? static_cast<size_t>(static_cast<const char*>(found) - text) : length;
        zu::String line;
        // Descriptors are always decoded as UTF-8, whatever their "encoding"
        // line says; text that is not valid UTF-8 gives no lines at all.
        if (!zu::String::tryFromUTF8(text + start, end - start, line)) {
            entries.clear();
            return;
        }
        entries.push_back(parseLine(line));
        if (!found) break;
        start = end + 1;
    }
    // The line end of the last line must not add a blank line on every round trip.
    if (!entries.empty() && entries.back()->toString().empty()) entries.pop_back();
    for (size_t i = 0; i < entries.size(); ++i) {
        if (zu::tryCast<CVMDKExtentInfo>(entries[i].get())) break;
        if (zu::tryCast<CNameValueEntry>(entries[i].get())) headerInsertIndex = static_cast<int>(i) + 1;
    }
}

zu::P<CVMDKDescriptorEntry> CVMDKDescriptor::parseLine(const zu::String& line)
{
    if (!line.empty() && line[0] == L'#') return zu::newObj<CGenericEntry>(line);
    if (zu::P<CNameValueEntry> nameValue = CNameValueEntry::tryParseDescriptorLine(line)) return nameValue;
    if (zu::P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(line)) return extent;
    return zu::newObj<CGenericEntry>(line);
}

CVMDKDescriptor& CVMDKDescriptor::operator=(const CVMDKDescriptor& other)
{
    // No self-assignment guard: assigning a descriptor to itself empties it.
    entries.clear();
    for (const auto& entry : other.entries) entries.push_back(entry->cloneDescriptorEntry());
    headerInsertIndex = other.headerInsertIndex;
    return *this;
}

CVMDKDescriptor::CNameValueEntry* CVMDKDescriptor::findEntry(const zu::String& name) const
{
    for (const auto& entry : entries) {
        auto* nameValue = zu::tryCast<CNameValueEntry>(entry.get());
        if (nameValue && nameValue->name.equalsIgnoreCaseASCII(name)) return nameValue;
    }
    return nullptr;
}

bool CVMDKDescriptor::hasValue(const zu::String& name) const { return findEntry(name) != nullptr; }

bool CVMDKDescriptor::tryGetValue(const zu::String& name, zu::String& value) const
{
    CNameValueEntry* entry = findEntry(name);
    value = entry ? entry->value : zu::String();
    return entry != nullptr;
}

zu::String CVMDKDescriptor::getValue(const zu::String& name) const
{
    CNameValueEntry* entry = findEntry(name);
    if (!entry) throw zu::CError("VMDK descriptor value '" + name + "' not found.", zu::String(), -1, sourceProps());
    return entry->value;
}

zu::CProps CVMDKDescriptor::sourceProps() const
{
    zu::CProps props;
    if (!sourceURI.isEmpty()) props.set("uri", sourceURI.toString(true));
    return props;
}

template <class Parse>
auto CVMDKDescriptor::parsed(const char* name, const zu::String& value, const char* expected, Parse parse) const
    -> decltype(parse(value))
{
    try {
        return parse(value);
    } catch (const zu::CError& e) {
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK descriptor value '" + zu::String(name) + "' is not " + expected + ": '" + value + "'.",
                           sourceProps().set("key", name).set("value", value), &e);
    }
}

void CVMDKDescriptor::setValue(const zu::String& name, const zu::String& value, bool quoted, bool atHeader)
{
    if (CNameValueEntry* entry = findEntry(name)) {
        if (&entry->value != &value) entry->value = value;
        return;
    }
    zu::P<CVMDKDescriptorEntry> entry = zu::newObj<CNameValueEntry>(name, value, quoted);
    if (atHeader) {
        entries.insert(entries.begin() + headerInsertIndex, entry);
        ++headerInsertIndex;
    } else {
        entries.push_back(entry);
    }
}

void CVMDKDescriptor::addGenericLine(const zu::String& line, bool atHeader)
{
    zu::P<CVMDKDescriptorEntry> entry = zu::newObj<CGenericEntry>(line);
    if (atHeader) {
        entries.insert(entries.begin() + headerInsertIndex, entry);
        ++headerInsertIndex;
    } else {
        entries.push_back(entry);
    }
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* extent)
{
    // After the last non-extent line and the extent lines that follow it,
    // which is always the end of the list.
    size_t at = 0;
    for (size_t i = 0; i < entries.size(); ++i)
        if (!zu::tryCast<CVMDKExtentInfo>(entries[i].get())) at = i + 1;
    while (at < entries.size() && zu::tryCast<CVMDKExtentInfo>(entries[at].get())) ++at;
    entries.insert(entries.begin() + static_cast<long>(at), zu::P<CVMDKDescriptorEntry>(extent));
}

void CVMDKDescriptor::getExtentEntries(zu::TArray<zu::P<CVMDKExtentInfo>>& out) const
{
    for (const auto& entry : entries)
        if (auto* extent = zu::tryCast<CVMDKExtentInfo>(entry.get())) out.push_back(extent);
}

zu::String CVMDKDescriptor::toString() const
{
    std::wstring text;
    for (const auto& entry : entries) {
        text += entry->toString().ToStdWstring();
        text += L'\n';
    }
    return zu::String(wxString(text));
}

std::string CVMDKDescriptor::toStoredText()
{
    setEncodingUTF8();
    return toString().toUTF8();
}

void CVMDKDescriptor::checkRoom(long long storedBytes, long long roomBytes, const zu::CURI& uri)
{
    // A descriptor that has grown past the room the file gives it (a text
    // file keeps its size, an embedded area its sectors).
    if (storedBytes > roomBytes)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK descriptor is larger than the room for it in the file (descriptor size: " +
                               zu::toString(storedBytes) + " bytes, room: " + zu::toString(roomBytes) + " bytes).",
                           zu::CProps()
                               .set("uri", uri.toString(true))
                               .set("descriptorSize", storedBytes)
                               .set("areaSize", roomBytes));
}

void CVMDKDescriptor::store(zu::IOutStream& stream, int targetSize, const zu::TBuffer<unsigned char>& padBuffer)
{
    std::string text = toStoredText();
    long long actual = static_cast<long long>(text.size());
    checkRoom(actual, targetSize, stream.getURI());
    long long pad = targetSize - actual;
    if (pad > padBuffer.getUsed())
        throw zu::CError("Internal error: pad buffer too small (size: " + zu::toString(padBuffer.getUsed()) +
                         ", needed: " + zu::toString(pad));
    if (actual > 0) stream.write(text.data(), static_cast<int>(actual));
    vmdkWritePadding(stream, static_cast<int>(pad), padBuffer);
}

int CVMDKDescriptor::getVersion() const
{
    // Checked before narrowing: "version=4294967297" must not read as version 1.
    return parsed(keyVersion, getValue(keyVersion), "a 32-bit decimal number", [](const zu::String& text) {
        long long version = zu::parseInt64(text, false);
        if (version < INT_MIN || version > INT_MAX)
            throw zu::CInvalidArgError("kord::CVMDKDescriptor::getVersion", "'" + text + "' is out of range");
        return static_cast<int>(version);
    });
}
void CVMDKDescriptor::setVersion(int version) { setValue(keyVersion, zu::toString(version), false, true); }

unsigned CVMDKDescriptor::getContentID() const
{
    return parsed(keyContentID, getValue(keyContentID), "a hexadecimal number", [](const zu::String& text) {
        return static_cast<unsigned>(zu::parseHexInt64(text, false) & 0xFFFFFFFF);
    });
}
void CVMDKDescriptor::setContentID(unsigned contentID)
{
    setValue(keyContentID, zu::toHexString(contentID), false, true);
}

unsigned CVMDKDescriptor::getParentContentID() const
{
    zu::String value;
    if (!tryGetValue(keyParentContentID, value)) return 0xFFFFFFFFu;
    return parsed(keyParentContentID, value, "a hexadecimal number", [](const zu::String& text) {
        return static_cast<unsigned>(zu::parseHexInt64(text, true) & 0xFFFFFFFF);
    });
}
void CVMDKDescriptor::setParentContentID(unsigned contentID)
{
    setValue(keyParentContentID, zu::toHexString(contentID), false, true);
}

zu::String CVMDKDescriptor::getCreateType() const { return getValue(keyCreateType); }
void CVMDKDescriptor::setCreateType(const zu::String& type) { setValue(keyCreateType, type, true, true); }

zu::String CVMDKDescriptor::getParentFileNameHint() const { return getValue(keyParentFileNameHint); }
bool CVMDKDescriptor::tryGetParentFileNameHint(zu::String& hint) const
{
    return tryGetValue(keyParentFileNameHint, hint);
}
void CVMDKDescriptor::setParentFileNameHint(const zu::String& hint)
{
    setValue(keyParentFileNameHint, hint, true, true);
}

zu::String CVMDKDescriptor::getAdapterType() const { return getValue(keyAdapterType); }
void CVMDKDescriptor::setAdapterType(const zu::String& type) { setValue(keyAdapterType, type, true, false); }

long long CVMDKDescriptor::getGeometrySectors() const
{
    return parsed(keyGeometrySectors, getValue(keyGeometrySectors), "a decimal number", parseDecimal);
}
long long CVMDKDescriptor::getGeometryHeads() const
{
    return parsed(keyGeometryHeads, getValue(keyGeometryHeads), "a decimal number", parseDecimal);
}
long long CVMDKDescriptor::getGeometryCylinders() const
{
    return parsed(keyGeometryCylinders, getValue(keyGeometryCylinders), "a decimal number", parseDecimal);
}
void CVMDKDescriptor::setGeometrySectors(long long sectors)
{
    setValue(keyGeometrySectors, zu::toString(sectors), true, false);
}
void CVMDKDescriptor::setGeometryHeads(long long heads) { setValue(keyGeometryHeads, zu::toString(heads), true, false); }
void CVMDKDescriptor::setGeometryCylinders(long long cylinders)
{
    setValue(keyGeometryCylinders, zu::toString(cylinders), true, false);
}

bool CVMDKDescriptor::getZuCreateExtentFilesOnDemand() const
{
    zu::String value;
    return tryGetValue(keyOnDemand, value) &&
           parsed(keyOnDemand, value, "a boolean", [](const zu::String& text) { return zu::parseBool(text); });
}
void CVMDKDescriptor::setZuCreateExtentFilesOnDemand(bool onDemand)
{
    setValue(keyOnDemand, zu::toString(onDemand), true, true);
}

zu::String CVMDKDescriptor::getZuEncryptionAlgorithm() const
{
    zu::String value;
    tryGetValue(keyEncAlg, value);
    return value;
}
void CVMDKDescriptor::setZuEncryptionAlgorithm(const zu::String& name) { setValue(keyEncAlg, name, false, true); }

zu::String CVMDKDescriptor::getZuEncryptionKeyHashAlgorithm() const { return getValue(keyEncKeyHashAlg); }
void CVMDKDescriptor::setZuEncryptionKeyHashAlgorithm(const zu::String& name)
{
    setValue(keyEncKeyHashAlg, name, false, true);
}

zu::String CVMDKDescriptor::getZuEncryptionKeyDerivationAlgorithm() const { return getValue(keyEncKeyDerivAlg); }
void CVMDKDescriptor::setZuEncryptionKeyDerivationAlgorithm(const zu::String& name)
{
    setValue(keyEncKeyDerivAlg, name, false, true);
}

zu::TBuffer<unsigned char> CVMDKDescriptor::getZuEncryptionIV() const
{
    return parsed(keyEncIV, getValue(keyEncIV), "hexadecimal bytes", parseHexBytes);
}
void CVMDKDescriptor::setZuEncryptionIV(const zu::TBuffer<unsigned char>& iv)
{
    setValue(keyEncIV, zu::hexEncode(iv), false, true);
}

zu::TBuffer<unsigned char> CVMDKDescriptor::getZuEncryptedEncryptionKey() const
{
    return parsed(keyEncEncKey, getValue(keyEncEncKey), "hexadecimal bytes", parseHexBytes);
}
void CVMDKDescriptor::setZuEncryptedEncryptionKey(const zu::TBuffer<unsigned char>& key)
{
    setValue(keyEncEncKey, zu::hexEncode(key), false, true);
}

zu::TBuffer<unsigned char> CVMDKDescriptor::getZuEncryptionKeyHash() const
{
    return parsed(keyEncKeyHash, getValue(keyEncKeyHash), "hexadecimal bytes", parseHexBytes);
}
void CVMDKDescriptor::setZuEncryptionKeyHash(const zu::TBuffer<unsigned char>& hash)
{
    setValue(keyEncKeyHash, zu::hexEncode(hash), false, true);
}

zu::TBuffer<unsigned char> CVMDKDescriptor::getZuEncryptionKeyDerivationSalt() const
{
    return parsed(keyEncKeyDerivSalt, getValue(keyEncKeyDerivSalt), "hexadecimal bytes", parseHexBytes);
}
void CVMDKDescriptor::setZuEncryptionKeyDerivationSalt(const zu::TBuffer<unsigned char>& salt)
{
    setValue(keyEncKeyDerivSalt, zu::hexEncode(salt), false, true);
}

void CVMDKDescriptor::setEncodingUTF8() { setValue(keyEncoding, "UTF-8", true, true); }

CVMDKDescriptor::CKeyWrapping CVMDKDescriptor::getZuKeyWrapping() const
{
    return CKeyWrapping{getZuEncryptionKeyDerivationAlgorithm(), getZuEncryptionKeyDerivationSalt(),
                        getZuEncryptedEncryptionKey()};
}

void CVMDKDescriptor::setZuKeyWrapping(const CKeyWrapping& wrapping)
{
    setZuEncryptionKeyDerivationAlgorithm(wrapping.derivationAlgorithm);
    setZuEncryptionKeyDerivationSalt(wrapping.salt);
    setZuEncryptedEncryptionKey(wrapping.wrappedKey);
}

bool CVMDKDescriptor::hasZuNextKeyWrapping() const
{
    return hasValue(keyEncNextKeyDerivAlg) || hasValue(keyEncNextKeyDerivSalt) || hasValue(keyEncNextEncKey);
}

CVMDKDescriptor::CKeyWrapping CVMDKDescriptor::getZuNextKeyWrapping() const
{
    return CKeyWrapping{getValue(keyEncNextKeyDerivAlg),
                        parsed(keyEncNextKeyDerivSalt, getValue(keyEncNextKeyDerivSalt), "hexadecimal bytes",
                               parseHexBytes),
                        parsed(keyEncNextEncKey, getValue(keyEncNextEncKey), "hexadecimal bytes", parseHexBytes)};
}

void CVMDKDescriptor::setZuNextKeyWrapping(const CKeyWrapping& wrapping)
{
    setValue(keyEncNextKeyDerivAlg, wrapping.derivationAlgorithm, false, false);
    setValue(keyEncNextKeyDerivSalt, zu::hexEncode(wrapping.salt), false, false);
    setValue(keyEncNextEncKey, zu::hexEncode(wrapping.wrappedKey), false, false);
}

void CVMDKDescriptor::removeZuNextKeyWrapping()
{
    for (const char* key : {keyEncNextKeyDerivAlg, keyEncNextKeyDerivSalt, keyEncNextEncKey}) removeValue(key);
}

void CVMDKDescriptor::removeValue(const zu::String& name)
{
    for (auto it = entries.begin(); it != entries.end();) {
        auto* nameValue = zu::tryCast<CNameValueEntry>(it->get());
        if (!nameValue || !nameValue->name.equalsIgnoreCaseASCII(name)) {
            ++it;
            continue;
        }
        int index = static_cast<int>(it - entries.begin());
        if (index < headerInsertIndex) --headerInsertIndex;
        it = entries.erase(it);
    }
}

} // namespace kord
