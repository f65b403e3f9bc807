// How the process asks the system for memory.
#pragma once

namespace mirell {

// Keeps the process on small pages. Libraries ask for transparent huge pages for their large
// buffers (the H.264 encoder does), and a huge page takes 2 MB of memory whether its buffer uses
// all of it or not: sharing 1080p held about 6 MB more, and peaked 13 MB higher, for no speed
// that could be measured. Call it first thing in main; it covers mappings made before it too.
// Returns false where the system refuses.
bool KeepToSmallPages();

}  // namespace mirell
