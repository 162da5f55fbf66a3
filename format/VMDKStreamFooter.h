// The footer of a stream-optimized file whose header says that the grain
// directory follows the grains (gdOffset = CVMDKSparseExtentHeader::
// gdOffsetInFooter): the last three sectors of the file hold the header
// again, with the directory's real position.
//
//   from the end  size  what
//          -1536   512  footer marker (vmdkMarkerFooter, value 1)
//          -1024   512  footer: the header with the real gdOffset
//           -512   512  end-of-stream marker (vmdkMarkerEndOfStream)
#pragma once

#include "base/IIOStream.h"
#include "format/CVMDKSparseExtentHeader.h"

namespace kord {

// Loads the footer of the stream into `footer`. A file whose last sectors
// are not footer marker, footer and end-of-stream marker (a copy cut off
// before its end, or never finished) throws zu::CIOError code 5 saying so,
// with the properties "uri" and "fileSize"; a footer with a bad magic
// throws as the header does.
void loadVMDKStreamFooter(zu::IIOStream* stream, CVMDKSparseExtentHeader& footer);

} // namespace kord
