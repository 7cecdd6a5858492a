#ifndef TAMREL_DDI_VERIFY_ABORT_H_
#define TAMREL_DDI_VERIFY_ABORT_H_

#include <atomic>

// Process-wide request to stop artifact verification, shared by every client:
// set by cancelVerifyArtifact, cleared when a verification starts hashing.
extern std::atomic<bool> verifyAbort;

#endif  // TAMREL_DDI_VERIFY_ABORT_H_
