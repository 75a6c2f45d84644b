// StopThreads.h - the end of the platform threads, which begins the clean-up chain.
#pragma once

namespace keelbase::internal {

// Stops the started threads and waits for them, but for the one that calls: whatever the chain
// destroys afterwards, none of their callbacks is using it. What was gathered to be sent on them,
// and on adopted threads that do not run, is written; what is queued there is destroyed. Once
// CAWCleanUpBase::HasRun() none is started any more. Those that a forked child has from its parent
// are left to that one: none is waited for, and nothing is done to what both share.
void StopThreads();

}  // namespace keelbase::internal
