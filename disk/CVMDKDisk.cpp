#include "disk/CVMDKDisk.h"

#include "base/CIOError.h"
#include "base/CMTRand.h"
#include "base/Log.h"
#include "base/Parse.h"
#include "crypto/CCipher_AES256CBC.h"
#include "crypto/CDigestType_SHA256.h"
#include "crypto/KeyDerivation.h"
#include "disk/CVMDKParentDiskDataProvider.h"
#include "extent/CVMDKNullExtentFile.h"
#include "extent/CVMDKOnDemandExtentFile.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "foreign/CVMDKFlatExtentFile.h"
#include "foreign/CVMDKRestrictedExtentFile.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKFileReference.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <climits>
#include <set>

namespace kord {

namespace {

const char* const derivationPrefix = "pkcs5-pbkdf2-hmac-sha1:";
constexpr long long minIterations = 1000;
constexpr long long minSaltBytes = 8;

// Why a key derivation named in a descriptor cannot be used (empty when it
// can), with the descriptor key at fault; checked in this order: the name,
// the salt, the iteration count.
zu::String findDerivationProblem(const zu::String& algorithm, const zu::TBuffer<unsigned char>& salt,
                                 long long& iterations, const char*& descriptorKey)
{
    descriptorKey = "zuEncKeyDerivAlg";
    if (!algorithm.StartsWith(derivationPrefix)) return "Unknown encryption key derivation algorithm: " + algorithm;
    try {
        iterations = zu::parseInt64(algorithm.substr(std::char_traits<char>::length(derivationPrefix)), false);
    } catch (const zu::CInvalidArgError&) {
        return "Unknown encryption key derivation algorithm: " + algorithm;
    }
    if (salt.getUsed() < minSaltBytes) {
        descriptorKey = "zuEncKeyDerivSalt";
        return "Key derivation salt is too small: " + zu::toString(salt.getUsed()) + " bytes";
    }
    if (iterations < minIterations) return "Key derivation iterations are too small: " + zu::toString(iterations);
    // A hostile descriptor must not make the open run for hours.
    if (iterations > CVMDKDisk::maxKeyDerivationIterations)
        return "Key derivation iterations are too large: " + zu::toString(iterations);
    return zu::String();
}

bool isSupportedCreateType(const zu::String& type)
{
    return type == zu::String("twoGbMaxExtentSparse") || type == zu::String("streamOptimized") ||
           type == zu::String("monolithicSparse");
}

// Create types of disks other tools make, whose extents openAny reads.
bool isForeignCreateType(const zu::String& type)
{
    for (const char* known : {"monolithicFlat", "twoGbMaxExtentFlat", "vmfs", "vmfsPreallocated",
                              "vmfsEagerZeroedThick", "vmfsThin", "custom"})
        if (type == zu::String(known)) return true;
    return false;
}

bool isFlatType(const zu::String& type) { return type == zu::String("FLAT") || type == zu::String("VMFS"); }

bool isZeroType(const zu::String& type) { return type == zu::String("ZERO"); }

bool isSparseType(const zu::String& type) { return type == zu::String("SPARSE"); }

} // namespace

CVMDKDisk::CVMDKDisk(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, const zu::String& password,
                     int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk)
    : CVMDKDisk(fileSystem, uri, access, password, compressionLevel, grainTableCache, parentDisk,
                std::vector<zu::CURI>(), false)
{
}

CVMDKDisk::CVMDKDisk(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, const zu::String& password,
                     int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
                     const std::vector<zu::CURI>& childChain, bool anyVariant)
    : fileSystem(fileSystem), mainURI(uri.toNormalized()), access(access), anyVariant(anyVariant),
      compressionLevel(compressionLevel)
{
    if (access != zu::IIOStream::accessRead && access != zu::IIOStream::accessReadWrite)
        throw zu::CInvalidArgError("CVMDKDisk constructor", "Invalid access mode: " + zu::toString(access),
                                   mainProps());
    construct(password, grainTableCache, parentDisk, childChain);
}

zu::P<CVMDKDisk> CVMDKDisk::openAny(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access,
                                   const zu::String& password)
{
    return zu::P<CVMDKDisk>(
        new CVMDKDisk(fileSystem, uri, access, password, -1, nullptr, nullptr, std::vector<zu::CURI>(), true),
        zu::AdoptRef());
}

CVMDKDisk::~CVMDKDisk()
{
    try {
        flushChanges();
        closeCurrentExtent();
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKDisk", e);
    }
}

zu::CProps CVMDKDisk::mainProps() const { return zu::CProps().set("uri", mainURI.toString(true)); }

void CVMDKDisk::construct(const zu::String& password, CVMDKGrainTableCache* cache, CVMDKDisk* parentDisk,
                          const std::vector<zu::CURI>& childChain)
{
    takeLock();
    grainTableCache = cache ? cache : zu::newObj<CVMDKGrainTableCache>(CVMDKGrainTableCache::defaultLimit).get();
    {
        zu::P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
        descriptor = accessor->getDescriptor();
        descriptorEmbedded = accessor->isEmbedded();
    }
    if (descriptor->getEntryCount() == 0)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "No descriptor found in main VMDK file.", mainProps());
    zu::String createType = descriptor->getCreateType();
    if (!isSupportedCreateType(createType) && !(anyVariant && isForeignCreateType(createType)))
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk has an unsupported create type: '" + createType + "'.",
                           mainProps());
    setUpEncryption(password);
    createExtentFilesOnDemand = descriptor->getZuCreateExtentFilesOnDemand();
    buildExtentMap();
    learnGrainGeometry();

    unsigned parentContentID = descriptor->getParentContentID();
    if (parentContentID != 0xFFFFFFFFu) {
        std::vector<zu::CURI> chain(childChain);
        chain.push_back(mainURI);
        parentDataProvider = zu::newObj<CVMDKParentDiskDataProvider>(
            fileSystem, mainURI, parentContentID, descriptor->getParentFileNameHint(), grainSizeSectors, password,
            compressionLevel, grainTableCache, parentDisk, chain, anyVariant);
        parentURI = parentDataProvider->getParentURI();
    }
    contentIDUpdater = zu::newObj<CVMDKContentIDUpdater>(fileSystem, mainURI, descriptor);
    diskSizeBytes = diskSizeSectors * vmdkSectorSize;
    currentExtentStartBytes = -1;
    currentExtentSizeBytes = 0;
    position = 0;
}

void CVMDKDisk::takeLock()
{
    zu::CURI lockURI(mainURI.getParent(), mainURI.getName() + ".lock");
    zu::CLockFile::LockType type =
        access == zu::IIOStream::accessReadWrite ? zu::CLockFile::lockTypeWrite : zu::CLockFile::lockTypeRead;
    try {
        lockFile = zu::newObj<zu::CLockFile>(fileSystem, lockURI, type, false, true);
    } catch (const std::exception&) {
        // A reader may go on without a lock where none can be made (a
        // read-only medium), but never past a lock that someone holds.
        if (access != zu::IIOStream::accessRead || fileSystem->exists(lockURI)) throw;
    }
}

zu::P<CVMDKDescriptorAccessor> CVMDKDisk::openDescriptorAccessor()
{
    if (currentExtent && currentExtentURI == mainURI) {
        if (auto* sparse = zu::tryCast<CVMDKSparseExtentFile>(currentExtent.get()))
            return zu::newObj<CVMDKDescriptorAccessor>(sparse->getStream(), access);
    }
    zu::P<zu::IIOStream> stream = openVMDKFileStream(fileSystem, mainURI, access);
    return zu::newObj<CVMDKDescriptorAccessor>(stream, access, fileSystem);
}

void CVMDKDisk::deriveEncryptKey(zu::TCryptBuffer<unsigned char>& key, int keyLength, const zu::String& password,
                                 const zu::String& derivationAlgorithm, const zu::TBuffer<unsigned char>& salt)
{
    long long iterations = 0;
    const char* descriptorKey = nullptr;
    zu::String problem = findDerivationProblem(derivationAlgorithm, salt, iterations, descriptorKey);
    if (!problem.empty()) throw zu::CInvalidArgError("CVMDKDisk::deriveEncryptKey", problem);
    std::string passwordBytes = password.toUTF8();
    key.setUsed(keyLength);
    pell::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(reinterpret_cast<const unsigned char*>(passwordBytes.data()),
                                          static_cast<int>(passwordBytes.size()), salt.getData(),
                                          static_cast<int>(salt.getUsed()), iterations, keyLength, key.getData());
    std::fill(passwordBytes.begin(), passwordBytes.end(), '\0');
}

void CVMDKDisk::setUpEncryption(const zu::String& password)
{
    zu::String algorithm = descriptor->getZuEncryptionAlgorithm();
    if (algorithm.empty()) return;
    if (algorithm != zu::String("aes256cbc"))
        throw zu::CError("Unsupported encryption algorithm used in VMDK: " + algorithm, zu::String(), -1, mainProps());
    cipher = zu::newObj<pell::CCipher_AES256CBC>();
    if (password.empty()) throw zu::CError(noPasswordMessage, zu::String(), -1, mainProps());

    encryptionIV = descriptor->getZuEncryptionIV();
    if (encryptionIV.getUsed() != cipher->getIVSize())
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK encryption IV has an invalid size.",
                           mainProps().set("ivSize", encryptionIV.getUsed()).set("expectedIVSize", cipher->getIVSize()));
    if (tryUnwrapKey(descriptor->getZuKeyWrapping(), password)) return;
    // While the password is being changed, the new one opens the disk too.
    if (!unwrapsWithNextPassword(password))
        throw zu::CError(wrongPasswordMessage, zu::String(), -1, mainProps());
}

bool CVMDKDisk::tryUnwrapKey(const CVMDKDescriptor::CKeyWrapping& wrapping, const zu::String& password)
{
    // The derivation's parameters come from the descriptor: damage in the file.
    long long iterations = 0;
    const char* descriptorKey = nullptr;
    zu::String problem = findDerivationProblem(wrapping.derivationAlgorithm, wrapping.salt, iterations, descriptorKey);
    if (!problem.empty())
        throw zu::CIOError(zu::CIOError::codeInvalidData, problem + ".", mainProps().set("key", descriptorKey));
    zu::TCryptBuffer<unsigned char> passwordKey;
    deriveEncryptKey(passwordKey, cipher->getKeySize(), password, wrapping.derivationAlgorithm, wrapping.salt);
    // The data key is wrapped with padding: one block more than the key.
    long long wrappedSize = (cipher->getKeySize() / cipher->getBlockSize() + 1) * cipher->getBlockSize();
    if (wrapping.wrappedKey.getUsed() != wrappedSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK encrypted encryption key has an invalid size.",
                           mainProps().set("keySize", wrapping.wrappedKey.getUsed()).set("expectedKeySize", wrappedSize));
    zu::TCryptBuffer<unsigned char> key;
    try {
        cipher->decrypt(passwordKey.getData(), wrapping.wrappedKey.getData(),
                        static_cast<int>(wrapping.wrappedKey.getUsed()), key, 0, encryptionIV.getData());
    } catch (const zu::CError&) {
        // Wrong padding after unwrapping: the password key was wrong.
        return false;
    }
    zu::String hashAlgorithm = descriptor->getZuEncryptionKeyHashAlgorithm();
    if (hashAlgorithm != zu::String("sha256"))
        throw zu::CError("Unsupported key hash algorithm used in VMDK: " + hashAlgorithm, zu::String(), -1, mainProps());
    encryptionKeyHash = descriptor->getZuEncryptionKeyHash();
    if (pell::CDigestType_SHA256::hash(key.getData(), key.getUsed()) != encryptionKeyHash) return false;
    encryptionKey = key;
    return true;
}

// A second wrapping cut short by an interrupted store unwraps nothing.
bool CVMDKDisk::unwrapsWithNextPassword(const zu::String& password)
{
    if (!descriptor->hasZuNextKeyWrapping()) return false;
    try {
        return tryUnwrapKey(descriptor->getZuNextKeyWrapping(), password);
    } catch (const zu::CError&) {
        return false;
    }
}

namespace {

// The data key wrapped under a password's key, made with a new random salt
// of saltBytes and the given derivation.
CVMDKDescriptor::CKeyWrapping wrapKey(const zu::TCryptBuffer<unsigned char>& dataKey,
                                      const zu::TBuffer<unsigned char>& iv, const zu::String& password,
                                      const zu::String& derivation, long long saltBytes)
{
    pell::CCipher_AES256CBC cipher;
    CVMDKDescriptor::CKeyWrapping wrapping{derivation, zu::TBuffer<unsigned char>(saltBytes), {}};
    zu::randData(wrapping.salt.getData(), static_cast<int>(saltBytes));
    zu::TCryptBuffer<unsigned char> passwordKey;
    CVMDKDisk::deriveEncryptKey(passwordKey, cipher.getKeySize(), password, derivation, wrapping.salt);
    cipher.encrypt(passwordKey.getData(), dataKey.getData(), static_cast<int>(dataKey.getUsed()), wrapping.wrappedKey,
                   0, iv.getData());
    return wrapping;
}

} // namespace

void CVMDKDisk::storeEncryptionKeys(CVMDKDescriptor& target, const zu::TCryptBuffer<unsigned char>& dataKey,
                                    const zu::TBuffer<unsigned char>& iv, const zu::String& password,
                                    long long iterations)
{
    pell::CCipher_AES256CBC cipher;
    target.setZuEncryptionAlgorithm(cipher.getID());
    target.setZuEncryptionIV(iv);
    target.setZuKeyWrapping(
        wrapKey(dataKey, iv, password, derivationPrefix + zu::toString(iterations), cipher.getKeySize()));
    target.setZuEncryptionKeyHashAlgorithm("sha256");
    target.setZuEncryptionKeyHash(pell::CDigestType_SHA256::hash(dataKey.getData(), dataKey.getUsed()));
}

void CVMDKDisk::verifyPasswordChange(const zu::String& newPassword) const
{
    verifyWritable("changePassword");
    if (!cipher)
        throw zu::CError("VMDK disk is not encrypted, so it has no password to change.", zu::String(), -1, mainProps());
    if (newPassword.empty())
        throw zu::CInvalidArgError("CVMDKDisk::changePassword", "the new password must not be empty", mainProps());
}

bool CVMDKDisk::hasPasswordOnly(const zu::String& password)
{
    return !descriptor->hasZuNextKeyWrapping() && tryUnwrapKey(descriptor->getZuKeyWrapping(), password);
}

void CVMDKDisk::stagePasswordChange(const zu::String& newPassword)
{
    verifyPasswordChange(newPassword);
    if (unwrapsWithNextPassword(newPassword) || hasPasswordOnly(newPassword)) return;
    // Same derivation and salt size as the current wrapping, so that
    // promoting it later changes no line's length.
    CVMDKDescriptor::CKeyWrapping current = descriptor->getZuKeyWrapping();
    descriptor->setZuNextKeyWrapping(
        wrapKey(encryptionKey, encryptionIV, newPassword, current.derivationAlgorithm, current.salt.getUsed()));
    storeDescriptor();
}

void CVMDKDisk::commitPasswordChange(const zu::String& newPassword)
{
    stagePasswordChange(newPassword);
    if (hasPasswordOnly(newPassword)) return;
    // Two stores: a first cut short leaves the second wrapping to open
    // with; the second only drops the lines at the end.
    descriptor->setZuKeyWrapping(descriptor->getZuNextKeyWrapping());
    storeDescriptor();
    descriptor->removeZuNextKeyWrapping();
    storeDescriptor();
}

void CVMDKDisk::changePassword(const zu::String& newPassword) { commitPasswordChange(newPassword); }

void CVMDKDisk::checkExtentLine(const CVMDKExtentInfo& line) const
{
    bool known = isSparseType(line.type) || (anyVariant && (isFlatType(line.type) || isZeroType(line.type)));
    if (!known)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk has an unsupported extent type: '" + line.type + "'.",
                           mainProps());
    bool knownAccess = line.access == zu::String("RW") || line.access == zu::String("RDONLY") ||
                       line.access == zu::String("NOACCESS");
    if (anyVariant && !knownAccess)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK disk has an unsupported extent access: '" + line.access + "'.", mainProps());
}

void CVMDKDisk::buildExtentMap()
{
    descriptor->getExtentEntries(extentInfos);
    if (extentInfos.size() > static_cast<size_t>(maxExtentLines))
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk has too many extents.",
                           mainProps().set("extentCount", static_cast<long long>(extentInfos.size())).set("maxExtentCount", maxExtentLines));
    // A descriptor embedded in a sparse extent lies in that extent: when it
    // names only one, that is the main file, whatever the name says (the
    // file was copied or renamed, or its maker wrote another name).
    long long sparseLines = std::count_if(extentInfos.begin(), extentInfos.end(),
                                          [](const zu::P<CVMDKExtentInfo>& line) { return isSparseType(line->type); });
    bool sparseLineIsMainFile = descriptorEmbedded && sparseLines == 1;
    zu::CURI baseDirectory = mainURI.getParent();
    // Every file of the disk by its identity (two names may be one file, a
    // link), the main file first: a write to one extent must change no
    // other and not the descriptor. The main file is an extent only where
    // it holds an embedded descriptor and is a sparse extent.
    auto identityOf = [this](const zu::CURI& uri) {
        return fileSystem->exists(uri) ? fileSystem->getFileIdentity(uri) : uri.toNormalized().toString(true);
    };
    const zu::String mainIdentity = identityOf(mainURI);
    std::set<zu::String> files{mainIdentity};
    bool mainFileIsExtent = false;
    long long start = 0;
    for (int i = 0; i < static_cast<int>(extentInfos.size()); ++i) {
        const CVMDKExtentInfo& info = *extentInfos[static_cast<size_t>(i)];
        checkExtentLine(info);
        if (info.sizeSectors < 0 || info.sizeSectors > LLONG_MAX / vmdkSectorSize - start)
            throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk has an extent of invalid size.",
                               mainProps().set("extentSize", info.sizeSectors).set("fileName", info.fileName));
        bool sparse = isSparseType(info.type);
        zu::CURI uri = mainURI;
        if (!isZeroType(info.type) && !(sparse && sparseLineIsMainFile))
            uri = vmdkFileReferenceToURI(baseDirectory, info.fileName);
        if (!isZeroType(info.type)) {
            zu::String identity = identityOf(uri);
            bool holdsDescriptor = sparse && descriptorEmbedded && !mainFileIsExtent && identity == mainIdentity;
            mainFileIsExtent = mainFileIsExtent || holdsDescriptor;
            if (!holdsDescriptor && !files.insert(identity).second)
                throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk names the same extent file twice.",
                                   mainProps().set("fileName", info.fileName));
        }
        if (sparse && firstSparseLine < 0) firstSparseLine = i;
        extentStartSectors.push_back(start);
        extentURIs.push_back(uri);
        // A line of size 0 maps no position; in the map it would compare
        // equal to its neighbours' ranges.
        if (info.sizeSectors > 0) extents[CExtentKey{start, info.sizeSectors}] = CExtentValue{uri, i};
        start += info.sizeSectors;
    }
    if (extentInfos.empty())
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK disk has no extents.", mainProps());
    diskSizeSectors = start;
}

void CVMDKDisk::learnGrainGeometry()
{
    if (firstSparseLine < 0) {
        grainSizeSectors = flatGrainSizeSectors;
        compressed = false;
    } else {
        zu::P<zu::IIOStream> stream =
            openVMDKFileStream(fileSystem, extentURIs[static_cast<size_t>(firstSparseLine)], zu::IIOStream::accessRead);
        CVMDKSparseExtentFile first(stream, zu::IIOStream::accessRead, 0, compressionLevel, grainTableCache, nullptr,
                                    nullptr, cipher, encryptionKey, encryptionIV, -1, anyVariant);
        grainSizeSectors = first.getGrainSizeSectors();
        compressed = first.getCompressed();
    }
    grainSizeBytes = grainSizeSectors * vmdkSectorSize;
    // Grains are numbered across the extents in order, so that each grain of
    // the disk gets its own number (and IV) even where an extent does not
    // begin on a grain boundary; where all do, this is start / grain size.
    long long grains = 0;
    for (const zu::P<CVMDKExtentInfo>& line : extentInfos) {
        extentStartGrains.push_back(grains);
        grains += (line->sizeSectors + grainSizeSectors - 1) / grainSizeSectors;
    }
}

long long CVMDKDisk::getExtentStartGrainIndex(int index) const
{
    return extentStartGrains.at(static_cast<size_t>(index));
}

long long CVMDKDisk::getExtentStartSector(int index) const { return extentStartSectors.at(static_cast<size_t>(index)); }

CVMDKDisk* CVMDKDisk::getParentDisk() { return parentDataProvider ? parentDataProvider->getParentDisk() : nullptr; }

void CVMDKDisk::closeCurrentExtent()
{
    if (!currentExtent) return;
    currentExtent->flushChanges();
    currentExtent = nullptr;
    currentExtentURI = zu::CURI();
    currentExtentStartBytes = -1;
    currentExtentSizeBytes = 0;
}

void CVMDKDisk::checkOnDemandExtentLocation(const zu::CURI& uri) const
{
    // Files are only ever created beside the disk's main file.
    if (uri.toNormalized().getParent() != mainURI.getParent())
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK extent file to be created on demand lies outside the disk's folder.",
                           mainProps().set("extentURI", uri.toString(true)));
}

bool CVMDKDisk::isMadeOnDemandAndMissing(int index) const
{
    return createExtentFilesOnDemand && isSparseType(extentInfos[static_cast<size_t>(index)]->type) &&
           !fileSystem->exists(extentURIs[static_cast<size_t>(index)]);
}

zu::P<IVMDKExtentFile> CVMDKDisk::openSparseExtentFile(int index, int extentAccess, IVMDKDataProvider* fallback,
                                                       CVMDKContentIDUpdater* updater)
{
    const zu::CURI& uri = extentURIs[static_cast<size_t>(index)];
    long long sizeSectors = extentInfos[static_cast<size_t>(index)]->sizeSectors;
    long long startGrainIndex = getExtentStartGrainIndex(index);
    if (isMadeOnDemandAndMissing(index)) {
        try {
            checkOnDemandExtentLocation(uri);
            long long capacity = (sizeSectors + grainSizeSectors - 1) / grainSizeSectors * grainSizeSectors;
            return zu::newObj<CVMDKOnDemandExtentFile>(
                fileSystem, uri, extentAccess, startGrainIndex, getExtentStartSector(index), grainSizeSectors, capacity,
                sizeSectors, compressed, compressionLevel, fallback, grainTableCache, updater, cipher, encryptionKey,
                encryptionIV, encryptionKeyHash);
        } catch (const std::exception& e) {
            zu::logError(e, "Error opening VMDK extent file on demand (path: '" + uri.toString(true) +
                                "'). Letting exception through.");
            throw;
        }
    }
    zu::P<zu::IIOStream> stream = openVMDKFileStream(fileSystem, uri, extentAccess);
    return zu::newObj<CVMDKSparseExtentFile>(stream, extentAccess, startGrainIndex, compressionLevel, grainTableCache,
                                             fallback, updater, cipher, encryptionKey, encryptionIV,
                                             getExtentStartSector(index), anyVariant);
}

zu::P<IVMDKExtentFile> CVMDKDisk::openExtentFile(int index, int extentAccess, IVMDKDataProvider* fallback,
                                                 CVMDKContentIDUpdater* updater)
{
    const CVMDKExtentInfo& line = *extentInfos[static_cast<size_t>(index)];
    const zu::CURI& uri = extentURIs[static_cast<size_t>(index)];
    long long startGrainIndex = getExtentStartGrainIndex(index);
    if (isSparseType(line.type)) return openSparseExtentFile(index, extentAccess, fallback, updater);
    if (isZeroType(line.type)) return makeNullExtent(index);
    zu::P<zu::IIOStream> stream = openVMDKFileStream(fileSystem, uri, extentAccess);
    // A line without offset column starts at the file's beginning.
    long long offset = line.offset == -1 ? 0 : line.offset;
    return zu::newObj<CVMDKFlatExtentFile>(stream, extentAccess, offset, line.sizeSectors, startGrainIndex,
                                           grainSizeSectors, compressed, compressionLevel, updater);
}

zu::P<IVMDKExtentFile> CVMDKDisk::openCheckedExtentFile(int index, int extentAccess)
{
    zu::P<IVMDKExtentFile> extent = openExtentFile(index, extentAccess, parentDataProvider.get(), contentIDUpdater);
    if (auto* sparse = zu::tryCast<CVMDKSparseExtentFile>(extent.get()))
        sparse->checkMatchesDisk(extentInfos[static_cast<size_t>(index)]->sizeSectors, grainSizeSectors, compressed,
                                 throwVMDKProblem);
    return extent;
}

zu::P<IVMDKExtentFile> CVMDKDisk::openExtent(const CExtentValue& value)
{
    int index = value.lineIndex;
    const CVMDKExtentInfo& line = *extentInfos[static_cast<size_t>(index)];
    if (!anyVariant) return openCheckedExtentFile(index, access);
    using Restricted = CVMDKRestrictedExtentFile;
    // The file of a line without access is not even opened.
    if (isWithoutAccess(index))
        return zu::newObj<Restricted>(makeNullExtent(index), Restricted::noAccess,
                                      "VMDK extent cannot be read: its descriptor line says NOACCESS.", line);
    bool readOnly = line.access == zu::String("RDONLY") || isZeroType(line.type);
    zu::P<IVMDKExtentFile> extent = openCheckedExtentFile(index, readOnly ? zu::IIOStream::accessRead : access);
    if (isZeroType(line.type))
        return zu::newObj<Restricted>(extent, Restricted::readOnly,
                                      "VMDK extent of type ZERO holds only zeros and cannot be written.", line);
    if (readOnly)
        return zu::newObj<Restricted>(extent, Restricted::readOnly,
                                      "VMDK extent cannot be written: its descriptor line says RDONLY.", line);
    return extent;
}

zu::P<IVMDKExtentFile> CVMDKDisk::openExtentForInspection(int index)
{
    if (isMadeOnDemandAndMissing(index)) {
        checkOnDemandExtentLocation(extentURIs[static_cast<size_t>(index)]);
        return nullptr;
    }
    if (isWithoutAccess(index)) return makeNullExtent(index);
    return openExtentFile(index, zu::IIOStream::accessRead, nullptr, nullptr);
}

bool CVMDKDisk::isWithoutAccess(int index) const
{
    return anyVariant && extentInfos[static_cast<size_t>(index)]->access == zu::String("NOACCESS");
}

zu::P<IVMDKExtentFile> CVMDKDisk::makeNullExtent(int index) const
{
    long long sizeSectors = extentInfos[static_cast<size_t>(index)]->sizeSectors;
    return zu::newObj<CVMDKNullExtentFile>(extentURIs[static_cast<size_t>(index)], getExtentStartGrainIndex(index),
                                           getExtentStartSector(index), grainSizeSectors, sizeSectors, sizeSectors, compressed, compressionLevel,
                                           nullptr);
}

void CVMDKDisk::beginIOOp(long long bytes, zu::P<IVMDKExtentFile>& extent, long long& bytesInExtent)
{
    bool holds = currentExtent && currentExtentStartBytes <= position &&
                 position < currentExtentStartBytes + currentExtentSizeBytes;
    if (!holds) {
        closeCurrentExtent();
        long long sector = position / vmdkSectorSize;
        // The first extent that ends after the sector.
        auto it = extents.lower_bound(CExtentKey{sector, 1});
        if (it == extents.end() || it->first.startSector > sector)
            throw zu::CError("Internal error: cannot find VMDK extent for position " + zu::toString(position),
                             zu::String(), -1, zu::CProps().set("mainURI", mainURI.toString(true)));
        zu::CURI uri = it->second.uri.toNormalized();
        currentExtent = openExtent(it->second);
        currentExtent->setSyncEnabled(syncEnabled);
        currentExtentURI = uri;
        currentExtentStartBytes = it->first.startSector * vmdkSectorSize;
        currentExtentSizeBytes = it->first.sizeSectors * vmdkSectorSize;
    }
    long long offset = position - currentExtentStartBytes;
    if (currentExtent->getPosition() != offset) currentExtent->seek(offset);
    extent = currentExtent;
    bytesInExtent = std::min(currentExtentSizeBytes - offset, bytes);
}

void CVMDKDisk::seek(long long newPosition)
{
    if (newPosition < 0 || newPosition > diskSizeBytes)
        throw zu::CIOError(zu::CIOError::codeSeek, "Bad seek position in VMDK disk: " + zu::toString(newPosition),
                           zu::CProps().set("diskSize", diskSizeBytes).set("mainFileURI", mainURI.toString(true)));
    position = newPosition;
}

void CVMDKDisk::read(void* buffer, int bytes)
{
    if (bytes < 0 || position + bytes > diskSizeBytes)
        throw zu::CIOError(zu::CIOError::codeEndOfData, "Read exceeds VMDK disk size.",
                           zu::CProps()
                               .set("bytesToRead", bytes)
                               .set("position", position)
                               .set("mainFileURI", mainURI.toString(true)));
    auto* out = static_cast<unsigned char*>(buffer);
    long long left = bytes;
    while (left > 0) {
        zu::P<IVMDKExtentFile> extent;
        long long n = 0;
        beginIOOp(left, extent, n);
        extent->read(out, static_cast<int>(n));
        position += n;
        out += n;
        left -= n;
    }
}

void CVMDKDisk::removeSlotSizeDirectory()
{
    verifyWritable("removeSlotSizeDirectory");
    if (!compressed || cipher || extentInfos.size() != 1)
        throw zu::CInvalidArgError("CVMDKDisk::removeSlotSizeDirectory",
                                   "only a stream-optimized disk of one unencrypted extent can be made a plain stream file",
                                   mainProps());
    seek(0);
    zu::P<IVMDKExtentFile> extent;
    long long offered = 0;
    beginIOOp(1, extent, offered);
    auto* sparse = dynamic_cast<CVMDKSparseExtentFile*>(extent.get());
    if (!sparse)
        throw zu::CError("Internal error: the extent of a stream-optimized disk is not a sparse extent.", zu::String(), -1,
                         mainProps());
    sparse->removeSlotSizeDirectory();
    extent = nullptr;
    closeCurrentExtent();
}

void CVMDKDisk::verifyWritable(const char* operation) const
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKDisk::" + zu::String(operation) +
                         " was called, but the disk was not opened for writing.");
}

void CVMDKDisk::prepareDataWrite(const char* operation)
{
    verifyWritable(operation);
    // A write may need the parent's data; a parent that cannot be opened
    // is refused before anything of this disk changes.
    if (parentDataProvider) parentDataProvider->getParentDisk();
}

void CVMDKDisk::write(const void* buffer, int bytes)
{
    if (bytes < 0 || position + bytes > diskSizeBytes)
        throw zu::CIOError(zu::CIOError::codeWrite, "Write exceeds VMDK disk size.",
                           zu::CProps()
                               .set("bytesToWrite", bytes)
                               .set("position", position)
                               .set("mainFileURI", mainURI.toString(true)));
    prepareDataWrite("write");
    const auto* in = static_cast<const unsigned char*>(buffer);
    long long left = bytes;
    while (left > 0) {
        zu::P<IVMDKExtentFile> extent;
        long long n = 0;
        beginIOOp(left, extent, n);
        extent->write(in, static_cast<int>(n));
        position += n;
        in += n;
        left -= n;
    }
}

void CVMDKDisk::flushChanges()
{
    if (access == zu::IIOStream::accessRead) return;
    if (currentExtent) currentExtent->flushChanges();
}

void CVMDKDisk::setSyncEnabled(bool enabled)
{
    syncEnabled = enabled;
    if (currentExtent) currentExtent->setSyncEnabled(enabled);
}

void CVMDKDisk::syncFiles()
{
    flushChanges();
    std::vector<zu::CURI> files{mainURI};
    for (int i = 0; i < static_cast<int>(extentInfos.size()); ++i) files.push_back(getExtentURI(i).toNormalized());
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    for (const zu::CURI& file : files) {
        if (!fileSystem->exists(file)) continue;
        // Syncing a file makes what any stream wrote to it durable.
        zu::P<zu::IIOStream> stream = fileSystem->openStream(file, zu::IIOStream::accessRead, zu::CProps());
        zu::syncStream(*stream);
    }
}


zu::P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer()
{
    return zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

bool CVMDKDisk::beginGrainOp(const char* internalMessage, zu::P<IVMDKExtentFile>& extent)
{
    long long offered = 0;
    beginIOOp(grainSizeBytes, extent, offered);
    if (offered == grainSizeBytes) return true;
    // Our disks are made of whole grains; other tools' extents may end
    // inside one.
    if (anyVariant) return false;
    throw zu::CError(internalMessage, zu::String(), -1, preparedGrainProps().set("opBytes", offered));
}

CVMDKDataPreparer& CVMDKDisk::spanningGrainPreparer()
{
    if (!spanningPreparer) spanningPreparer = createDataPreparer();
    return *spanningPreparer;
}

// A grain that spans extents has no stored form of its own: its prepared
// form is made from its bytes, and taken back into them.
void CVMDKDisk::readSpanningGrain(zu::TBuffer<unsigned char>& preparedData)
{
    long long grainIndex = position / grainSizeBytes;
    zu::TBuffer<unsigned char>& plain = compressed ? spanningGrain : preparedData;
    plain.setUsed(grainSizeBytes);
    read(plain.getData(), static_cast<int>(grainSizeBytes));
    if (compressed) spanningGrainPreparer().prepareGrainData(plain.getData(), grainSizeBytes, grainIndex, preparedData);
}

void CVMDKDisk::writeSpanningGrain(const zu::TBuffer<unsigned char>& preparedData)
{
    // Short uncompressed data is padded with zeros, as an extent pads it.
    if (!compressed && preparedData.getUsed() == grainSizeBytes) {
        write(preparedData.getData(), static_cast<int>(grainSizeBytes));
        return;
    }
    if (!compressed && preparedData.getUsed() > grainSizeBytes)
        throw zu::CInvalidArgError("CVMDKDisk::writePreparedGrainData", "prepared data is bigger than a prepared grain can be",
                                   preparedGrainProps().set("preparedDataSize", preparedData.getUsed()));
    spanningGrain.setUsed(grainSizeBytes);
    spanningGrainPreparer().unprepareGrainData(preparedData.getData(), preparedData.getUsed(), spanningGrain.getData());
    write(spanningGrain.getData(), static_cast<int>(grainSizeBytes));
}

zu::CProps CVMDKDisk::preparedGrainProps() const
{
    return zu::CProps()
        .set("diskSize", diskSizeBytes)
        .set("grainSize", grainSizeBytes)
        .set("position", position)
        .set("mainFileURI", mainURI.toString(true));
}

void CVMDKDisk::checkPreparedGrainPosition(const char* kind) const
{
    // Past the end is the write-failure code for reads too, as for the
    // prepared write.
    if (position + grainSizeBytes > diskSizeBytes)
        throw zu::CIOError(zu::CIOError::codeWrite, "Prepared grain " + zu::String(kind) + " exceeds VMDK disk size.",
                           preparedGrainProps());
    if (position % grainSizeBytes != 0) {
        zu::CProps props = preparedGrainProps();
        props.erase("diskSize");
        throw zu::CIOError(zu::CIOError::codeMisalignedPosition,
                           "Prepared grain " + zu::String(kind) + " in VMDK disk can only be done on a grain boundary.", props);
    }
}

void CVMDKDisk::writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData)
{
    writeWholeGrain(preparedData, false);
}

void CVMDKDisk::writeWholeGrain(const zu::TBuffer<unsigned char>& data, bool stored)
{
    checkPreparedGrainPosition("write");
    prepareDataWrite("write");
    zu::P<IVMDKExtentFile> extent;
    // Grains span extents only in other tools' disks, which are never
    // encrypted: there the stored form is the prepared one.
    if (!beginGrainOp("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData returned less than "
                      "the grain size.",
                      extent))
        return writeSpanningGrain(data);
    if (stored)
        extent->writeStoredGrainData(data);
    else
        extent->writePreparedGrainData(data);
    position += grainSizeBytes;
}

zu::P<CVMDKGrainCipher> CVMDKDisk::createGrainCipher() const
{
    if (!cipher) return nullptr;
    return zu::newObj<CVMDKGrainCipher>(zu::newObj<pell::CCipher_AES256CBC>(), encryptionKey, encryptionIV,
                                        grainSizeBytes, compressed);
}

void CVMDKDisk::writeStoredGrainData(const zu::TBuffer<unsigned char>& data) { writeWholeGrain(data, true); }

bool CVMDKDisk::readStoredGrainData(zu::TBuffer<unsigned char>& data) { return readWholeGrain(data, true); }

void CVMDKDisk::readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) { readWholeGrain(preparedData, false); }

bool CVMDKDisk::readWholeGrain(zu::TBuffer<unsigned char>& data, bool stored)
{
    checkPreparedGrainPosition("read");
    zu::P<IVMDKExtentFile> extent;
    if (!beginGrainOp("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::tryRreparedGrainData returned less than the "
                      "grain size.",
                      extent)) {
        readSpanningGrain(data);
        return false;
    }
    bool encrypted = false;
    if (stored)
        encrypted = extent->readStoredGrainData(data);
    else
        extent->readPreparedGrainData(data);
    position += grainSizeBytes;
    return encrypted;
}

bool CVMDKDisk::makeGrainIndependentOfParent(long long grainIndex)
{
    prepareDataWrite("makeGrainIndependentOfParent");
    if (grainIndex < 0 || grainIndex > LLONG_MAX / grainSizeBytes)
        throw zu::CInvalidArgError("CVMDKDisk::makeGrainIndependentOfParent", "Invalid grain index: " + zu::toString(grainIndex),
                                   mainProps());
    seek(grainIndex * grainSizeBytes);
    zu::P<IVMDKExtentFile> extent;
    if (!beginGrainOp("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData returned less than "
                      "the grain size.",
                      extent)) {
        // Each part takes the parent's bytes as written data.
        spanningGrain.setUsed(grainSizeBytes);
        read(spanningGrain.getData(), static_cast<int>(grainSizeBytes));
        seek(grainIndex * grainSizeBytes);
        write(spanningGrain.getData(), static_cast<int>(grainSizeBytes));
        return parentDataProvider != nullptr;
    }
    bool result = extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
    position += grainSizeBytes;
    return result;
}

bool CVMDKDisk::isGrainWritten()
{
    zu::P<IVMDKExtentFile> extent;
    long long n = 0;
    beginIOOp(1, extent, n);
    return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent()
{
    zu::P<IVMDKExtentFile> extent;
    long long n = 0;
    beginIOOp(1, extent, n);
    return extent->isGrainWrittenAndIndependentOfParent();
}

CVMDKDataPlace CVMDKDisk::locate()
{
    zu::P<IVMDKExtentFile> extent;
    long long n = 0;
    beginIOOp(diskSizeBytes - position, extent, n);
    CVMDKDataPlace place = extent->locate();
    place.bytes = std::min(place.bytes, n);
    return place;
}

zu::P<CVMDKSpaceInfo> CVMDKDisk::gatherSpaceInfo()
{
    zu::P<CVMDKSpaceInfo> total = zu::newObj<CVMDKSpaceInfo>();
    long long remembered = position;
    seek(0);
    while (position < diskSizeBytes) {
        zu::P<IVMDKExtentFile> extent;
        long long n = 0;
        beginIOOp(diskSizeBytes - position, extent, n);
        total->addSpaceInfo(*extent->gatherSpaceInfo());
        position += n;
    }
    seek(remembered);
    return total;
}

void CVMDKDisk::storeDescriptor()
{
    verifyWritable("storeDescriptor");
    zu::P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
    *accessor->getDescriptor() = *descriptor;
    accessor->storeDescriptor(true);
}

void CVMDKDisk::changeParentRelPath(const zu::String& parentRelPath)
{
    verifyWritable("changeParentRelPath");
    descriptor->setParentFileNameHint(parentRelPath);
    storeDescriptor();
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) { grainTableCache->setAutoEnforceLimit(enabled); }

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) { contentIDUpdater->setContentIDUpdatesEnabled(enabled); }

} // namespace kord
