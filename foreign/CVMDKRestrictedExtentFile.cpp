#include "foreign/CVMDKRestrictedExtentFile.h"

#include "base/CIOError.h"

namespace kord {

CVMDKRestrictedExtentFile::CVMDKRestrictedExtentFile(IVMDKExtentFile* inner, Restriction restriction,
                                                     const zu::String& reason, const CVMDKExtentInfo& line)
    : inner(inner), restriction(restriction), reason(reason), lineText(line.toString())
{
}

void CVMDKRestrictedExtentFile::refuse(long long code) const
{
    throw zu::CIOError(code, reason, zu::CProps().set("uri", inner->getURI().toString(true)).set("extent", lineText));
}

void CVMDKRestrictedExtentFile::refuseReadsWithoutAccess() const
{
    if (restriction == noAccess) refuse(zu::CIOError::codeRead);
}

int CVMDKRestrictedExtentFile::read(void* data, int bytes)
{
    refuseReadsWithoutAccess();
    return inner->read(data, bytes);
}

void CVMDKRestrictedExtentFile::readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData)
{
    refuseReadsWithoutAccess();
    inner->readPreparedGrainData(preparedData);
}

void CVMDKRestrictedExtentFile::write(const void*, int) { refuse(zu::CIOError::codeWrite); }

void CVMDKRestrictedExtentFile::writePreparedGrainData(const zu::TBuffer<unsigned char>&)
{
    refuse(zu::CIOError::codeWrite);
}

bool CVMDKRestrictedExtentFile::makeGrainIndependentOfParent(long long) { refuse(zu::CIOError::codeWrite); }

} // namespace kord
