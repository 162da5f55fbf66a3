// A virtual disk in the VMDK format, as one seekable byte stream of its
// virtual contents: the library's public object.
//
// Opening takes the lock file beside the main file, reads the descriptor
// (embedded in a sparse extent or as a text file), checks the create type,
// unwraps the data key of an encrypted disk, and maps the extent lines to
// disk positions. Exactly one extent file is open at a time; an access
// elsewhere flushes and closes it and opens the extent that holds the
// position. A delta disk reads grains it does not hold from its parent,
// which is opened on first need.
//
// The constructor opens the variants that we make: monolithicSparse,
// twoGbMaxExtentSparse and streamOptimized disks of SPARSE extents in our
// layout. openAny opens what other tools make too: flat, vmfs and custom
// disks with FLAT, VMFS and ZERO extents, the access words RDONLY and
// NOACCESS, and other tools' stream-optimized files (read-only); parents
// of such a disk open the same way. Either way a descriptor embedded in
// the disk's only sparse extent makes the main file that extent, whatever
// name the extent line gives (a copied or renamed file is itself).
//
// The disk owns its extents, its parent provider, its content-ID updater and
// (unless shared) its grain table cache. It is used by one thread at a time;
// other processes are kept away by the lock file.
#pragma once

#include "base/CLockFile.h"
#include "base/IFileSystem.h"
#include "base/TContainers.h"
#include "crypto/ICipher.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "descriptor/CVMDKDescriptor.h"
#include "descriptor/CVMDKDescriptorAccessor.h"
#include "extent/IVMDKExtentFile.h"
#include "grain/CVMDKGrainCipher.h"
#include "grain/CVMDKGrainTableCache.h"

#include <vector>

namespace kord {

class CVMDKParentDiskDataProvider;

class CVMDKDisk : public zu::CBase {
public:
    // The extent map's key. Ranges that overlap compare equal, so looking up
    // a one-sector range finds the extent that holds that sector: an ordered
    // map serves as an interval map.
    struct CExtentKey {
        long long startSector;
        long long sizeSectors;
        bool operator<(const CExtentKey& other) const { return startSector + sizeSectors <= other.startSector; }
    };
    struct CExtentValue {
        zu::CURI uri;
        // The extent line's index in getExtentInfos().
        int lineIndex;
    };

    // What a new disk looks like (see create).
    struct CCreateParams {
        // "monolithicSparse", "twoGbMaxExtentSparse" or "streamOptimized".
        zu::String createType = "monolithicSparse";
        // Virtual size in sectors; with a parent, 0 takes the parent's.
        long long capacitySectors = 0;
        long long grainSizeSectors = 128;
        // "lsilogic", "ide", "buslogic" or "legacyESX".
        zu::String adapterType = "lsilogic";
        // Not empty: the disk is encrypted (and the parent, if encrypted,
        // opens with the same password).
        zu::String password;
        // Not empty: the new disk is a delta disk of this parent.
        zu::CURI parentURI;
        // twoGbMaxExtentSparse only: extent files other than the first are
        // made when first written.
        bool createExtentFilesOnDemand = false;
        // Deflate level for compressed grains (-1: the default).
        int compressionLevel = -1;
    };

    // The largest extent a split disk gets, in sectors (just under 2 GiB).
    static constexpr long long maxSplitExtentSectors = 4192256;
    // Sectors of the descriptor area embedded in a new single-file disk.
    static constexpr long long embeddedDescriptorSectors = 20;
    // Limits on what a descriptor may ask for. 8000 extent lines of a split
    // disk hold about 16 TiB and, with the usual keys, stay below the
    // descriptor's line limit.
    static constexpr int maxExtentLines = 8000;
    static constexpr long long maxKeyDerivationIterations = 10000000;
    static constexpr long long newDiskKeyDerivationIterations = 10000;
    // The grain size of a disk without sparse extents (flat ones): the
    // unit of its grains in prepared form.
    static constexpr long long flatGrainSizeSectors = 128;

    // Opens an existing disk. access is zu::IIOStream::accessRead or
    // accessReadWrite. password may be empty for a disk without encryption.
    // grainTableCache may be null (the disk makes its own of 1024 tables).
    // parentDisk, when given, is used as the parent of a delta disk instead
    // of opening one.
    CVMDKDisk(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, const zu::String& password,
              int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk);
    // Flushes; never throws (failures are reported through zu's destructor hook).
    ~CVMDKDisk() override;

    // Opens any VMDK disk, whichever tool made it: the entry point for
    // callers that do not know the variant. Takes the same arguments as the
    // constructor (default compression, its own grain table cache). Parts
    // that cannot be written (other tools' stream files, RDONLY and ZERO
    // extents) refuse writes with a zu::CIOError code 3 naming the file.
    static zu::P<CVMDKDisk> openAny(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access,
                                    const zu::String& password);

    // Makes a new disk and returns it open read-write. Refuses to create
    // over an existing file; a creation that fails part-way leaves no file.
    static zu::P<CVMDKDisk> create(zu::IFileSystem* fileSystem, const zu::CURI& uri, const CCreateParams& params);

    // Fills key with keyLength bytes derived from the password (its UTF-8
    // bytes) by the named derivation ("pkcs5-pbkdf2-hmac-sha1:<iterations>").
    static void deriveEncryptKey(zu::TCryptBuffer<unsigned char>& key, int keyLength, const zu::String& password,
                                 const zu::String& derivationAlgorithm, const zu::TBuffer<unsigned char>& salt);

    // Writes the encryption keys of a disk into its descriptor: the data key
    // wrapped under a key derived from the password (by that many PBKDF2
    // iterations) with a fresh random salt, the IV, the parameters and the
    // data key's SHA-256 hash.
    static void storeEncryptionKeys(CVMDKDescriptor& descriptor, const zu::TCryptBuffer<unsigned char>& dataKey,
                                    const zu::TBuffer<unsigned char>& iv, const zu::String& password,
                                    long long iterations = newDiskKeyDerivationIterations);

    // Byte-stream access to the virtual contents.
    void seek(long long position);
    long long getPosition() const { return position; }
    void read(void* buffer, int bytes);
    void write(const void* buffer, int bytes);
    // Makes the changes durable: grain data, then the metadata that points
    // at it, then the headers marked clean, each synced before the next, so
    // that a crash at any point leaves every byte old or new. A disk
    // without changes writes and syncs nothing. After a failed write the
    // changes stay pending and the next flushChanges retries them; after a
    // failed sync the disk refuses every later change (open it again).
    void flushChanges();
    // Off: flushChanges writes in the same order but syncs nothing, for a
    // new disk that is put in place only when complete; syncFiles then
    // makes it durable in one go. On by default.
    void setSyncEnabled(bool enabled);
    // Flushes, then syncs every file of the disk that exists.
    void syncFiles();

    // Whole grains in prepared form (compressed and/or as stored, not
    // encrypted), at grain boundaries; each advances by one grain.
    zu::P<CVMDKDataPreparer> createDataPreparer();
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData);
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData);
    // For threads that encrypt and decrypt grains beside the disk's own
    // thread, each with its own cipher (null when the disk is not
    // encrypted): whole grains in stored form, which is the prepared form
    // encrypted. readStoredGrainData answers whether the grain came
    // encrypted (false: in prepared form, as readPreparedGrainData gives
    // it, for grains this disk does not store itself).
    zu::P<CVMDKGrainCipher> createGrainCipher() const;
    bool readStoredGrainData(zu::TBuffer<unsigned char>& data);
    void writeStoredGrainData(const zu::TBuffer<unsigned char>& data);
    // Copies the parent's grain (disk-wide index) into this disk.
    bool makeGrainIndependentOfParent(long long grainIndex);
    // The grain at the position is stored in this disk or its parent chain
    // / in this disk itself. The position does not change.
    bool isGrainWritten();
    bool isGrainWrittenAndIndependentOfParent();
    // Where the bytes from the position on lie in this disk's own files (not
    // its parent's), for at least one byte and at most to the end of their
    // grain or extent. Needs a position before the disk's end; reads at most
    // a grain table. The position does not change.
    CVMDKDataPlace locate();
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo();

    // Writes the in-memory descriptor back in place.
    void storeDescriptor();
    // Re-wraps the data key of an encrypted disk under a new password (new
    // salt, same key and IV, so no grain is rewritten). Needs read-write
    // access. Two steps, each stored durably, so that an interruption at any
    // point leaves a disk that opens with the old or the new password:
    // staging adds a second wrapping for the new password (the disk then
    // opens with either), committing makes it the only one. Both do nothing
    // where already done, so a repeated change finishes an interrupted one;
    // changePassword is both. Over a chain (which opens with one password),
    // stage every disk before committing any.
    void stagePasswordChange(const zu::String& newPassword);
    void commitPasswordChange(const zu::String& newPassword);
    void changePassword(const zu::String& newPassword);
    // The messages of the errors that a wrong password and a missing one give.
    static constexpr const char* wrongPasswordMessage = "Specified VMDK encryption password is not correct.";
    static constexpr const char* noPasswordMessage = "VMDK is encrypted but no password provided";
    void changeParentRelPath(const zu::String& parentRelPath);
    // Makes a stream-optimized disk of one unencrypted extent a plain
    // stream file, as other tools write it: flushes and removes the
    // slot-size directory (CVMDKSparseExtentFile::removeSlotSizeDirectory).
    // The disk is to be closed right after; it opens again through openAny,
    // read-only. Needs read-write access.
    void removeSlotSizeDirectory();
    void setAutomaticGrainTableFlushingEnabled(bool enabled);
    void setContentIDUpdatesEnabled(bool enabled);

    long long getDiskSizeBytes() const { return diskSizeBytes; }
    long long getDiskSizeSectors() const { return diskSizeSectors; }
    long long getGrainSizeSectors() const { return grainSizeSectors; }
    long long getGrainSizeBytes() const { return grainSizeBytes; }
    bool getCompressed() const { return compressed; }
    bool isEncrypted() const { return cipher != nullptr; }
    int getAccess() const { return access; }
    int getCompressionLevel() const { return compressionLevel; }
    const zu::CURI& getMainURI() const { return mainURI; }
    const zu::CURI& getParentURI() const { return parentURI; }
    zu::IFileSystem* getFileSystem() const { return fileSystem; }
    CVMDKDescriptor* getDescriptor() const { return descriptor; }
    CVMDKGrainTableCache* getGrainTableCache() const { return grainTableCache; }
    // The open parent of a delta disk (opened now if needed), else null.
    CVMDKDisk* getParentDisk();
    // The extent lines in file order, and the URI each resolves to (the
    // main file for the only sparse extent of an embedded descriptor; for
    // a ZERO extent, which has no file, the main file too).
    const zu::TArray<zu::P<CVMDKExtentInfo>>& getExtentInfos() const { return extentInfos; }
    const zu::CURI& getExtentURI(int index) const { return extentURIs.at(static_cast<size_t>(index)); }
    // Refuses (zu::CIOError code 5) an extent file to be made on demand
    // that does not lie beside the main file.
    void checkOnDemandExtentLocation(const zu::CURI& uri) const;
    // Extent line `index` opened read-only, without parent and without
    // content-ID updates, for inspection: a CVMDKSparseExtentFile for a
    // SPARSE line, a flat extent for FLAT and VMFS, a null extent for ZERO
    // and NOACCESS lines; null when the file is one the disk makes on
    // demand and not made yet (and lies where it may be made). Throws what
    // the extent's constructor throws; whether a sparse extent fits its
    // line is the caller's to check (checkMatchesDisk).
    zu::P<IVMDKExtentFile> openExtentForInspection(int index);
    // Opened through openAny (and so are its parents).
    bool opensAnyVariant() const { return anyVariant; }
    // The descriptor lies in the main file's descriptor area.
    bool hasEmbeddedDescriptor() const { return descriptorEmbedded; }
    // Disk-wide number of the first grain of the extent line, and the
    // sector where the line's extent begins in the disk.
    long long getExtentStartGrainIndex(int index) const;
    long long getExtentStartSector(int index) const;
    // The disk's own data key (empty when not encrypted). For tools that
    // re-wrap the key under a new password.
    const zu::TCryptBuffer<unsigned char>& getEncryptionKey() const { return encryptionKey; }
    // The cipher and IV an encrypted disk hands to its extents (null and empty otherwise).
    pell::ICipher* getCipher() const { return cipher; }
    const zu::TBuffer<unsigned char>& getEncryptionIV() const { return encryptionIV; }

protected:
    friend class CVMDKParentDiskDataProvider;
    friend class CVMDKDiskCreator;
    // childChain: the URIs of the disks below this one in a chain being
    // opened. anyVariant: open as openAny does.
    CVMDKDisk(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, const zu::String& password,
              int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
              const std::vector<zu::CURI>& childChain, bool anyVariant);

private:
    void construct(const zu::String& password, CVMDKGrainTableCache* cache, CVMDKDisk* parentDisk,
                   const std::vector<zu::CURI>& childChain);
    void takeLock();
    void setUpEncryption(const zu::String& password);
    // Sets the data key when the password unwraps it; false when not.
    bool tryUnwrapKey(const CVMDKDescriptor::CKeyWrapping& wrapping, const zu::String& password);
    bool unwrapsWithNextPassword(const zu::String& password);
    bool hasPasswordOnly(const zu::String& password);
    void verifyPasswordChange(const zu::String& newPassword) const;
    void checkExtentLine(const CVMDKExtentInfo& line) const;
    void buildExtentMap();
    void learnGrainGeometry();
    void beginIOOp(long long bytes, zu::P<IVMDKExtentFile>& extent, long long& bytesInExtent);
    zu::P<IVMDKExtentFile> openExtent(const CExtentValue& value);
    // The extent object of line `index` as its file makes it (no access
    // restrictions of the line applied), opened with `extentAccess`.
    zu::P<IVMDKExtentFile> openExtentFile(int index, int extentAccess, IVMDKDataProvider* fallback,
                                          CVMDKContentIDUpdater* updater);
    zu::P<IVMDKExtentFile> openSparseExtentFile(int index, int extentAccess, IVMDKDataProvider* fallback,
                                                CVMDKContentIDUpdater* updater);
    // openExtentFile for the disk's own use, with its parent and updater; a
    // sparse file must fit its line and the disk's grain geometry.
    zu::P<IVMDKExtentFile> openCheckedExtentFile(int index, int extentAccess);
    bool isMadeOnDemandAndMissing(int index) const;
    // A NOACCESS line (openAny only): its file is never opened.
    bool isWithoutAccess(int index) const;
    // A file-less extent of line `index`: zeros, no parent.
    zu::P<IVMDKExtentFile> makeNullExtent(int index) const;
    void closeCurrentExtent();
    zu::P<CVMDKDescriptorAccessor> openDescriptorAccessor();
    zu::CProps mainProps() const;
    void verifyWritable(const char* operation) const;
    void prepareDataWrite(const char* operation);
    // The extent holding the whole grain at the position: false (in a
    // disk opened by openAny) where the grain spans extents.
    bool beginGrainOp(const char* internalMessage, zu::P<IVMDKExtentFile>& extent);
    // Whole-grain transfers in prepared or stored form.
    bool readWholeGrain(zu::TBuffer<unsigned char>& data, bool stored);
    void writeWholeGrain(const zu::TBuffer<unsigned char>& data, bool stored);
    CVMDKDataPreparer& spanningGrainPreparer();
    void readSpanningGrain(zu::TBuffer<unsigned char>& preparedData);
    void writeSpanningGrain(const zu::TBuffer<unsigned char>& preparedData);
    zu::CProps preparedGrainProps() const;
    void checkPreparedGrainPosition(const char* kind) const;

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI mainURI;
    int access;
    bool anyVariant = false;
    bool descriptorEmbedded = false;
    int compressionLevel;
    zu::P<CVMDKGrainTableCache> grainTableCache;
    zu::CURI parentURI;
    zu::P<CVMDKParentDiskDataProvider> parentDataProvider;
    zu::P<CVMDKDescriptor> descriptor;
    zu::TArray<zu::P<CVMDKExtentInfo>> extentInfos;
    // First sector and first grain number of each extent line in the disk,
    // and the file it names, in file order.
    std::vector<long long> extentStartSectors;
    std::vector<long long> extentStartGrains;
    std::vector<zu::CURI> extentURIs;
    // The first SPARSE line, which gives the grain geometry; -1 when none.
    int firstSparseLine = -1;
    zu::TMap<CExtentKey, CExtentValue> extents;
    long long diskSizeSectors = 0;
    long long diskSizeBytes = 0;
    long long grainSizeSectors = 0;
    long long grainSizeBytes = 0;
    bool compressed = false;
    long long position = 0;
    zu::P<IVMDKExtentFile> currentExtent;
    zu::CURI currentExtentURI;
    long long currentExtentStartBytes = -1;
    long long currentExtentSizeBytes = 0;
    zu::P<CVMDKContentIDUpdater> contentIDUpdater;
    bool createExtentFilesOnDemand = false;
    bool syncEnabled = true;
    zu::P<zu::CLockFile> lockFile;
    zu::P<pell::ICipher> cipher;
    zu::TCryptBuffer<unsigned char> encryptionKey;
    zu::TBuffer<unsigned char> encryptionIV;
    zu::TBuffer<unsigned char> encryptionKeyHash;
    // For grains that span extents: made on first need and reused.
    zu::P<CVMDKDataPreparer> spanningPreparer;
    zu::TBuffer<unsigned char> spanningGrain;
};

} // namespace kord
