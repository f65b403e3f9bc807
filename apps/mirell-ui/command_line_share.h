// A share started from the command line ("--share-window", "--share-monitor"), for headless use,
// scripts and hotkeys, with the admission rule given beside it ("--allow", "--admit-everyone").
#pragma once

#include <span>

#include "daemon_host.h"
#include "mirell/capture/capture_targets.h"
#include "mirell/session/sharing.h"
#include "options.h"

namespace mirell::ui {

// The target the options name, from the lists of what can be shared now. Throws
// std::invalid_argument with a sentence for a person when no window's title matches or the
// monitor is not there.
session::ShareTarget ResolveShareTarget(const ShareOptions& options,
                                        std::span<const capture::CapturableWindow> windows,
                                        std::span<const capture::CapturableMonitor> monitors);

// Applies the admission rule and, when a target was asked for, starts sharing it and prints the
// link on stdout. Throws when the share cannot start.
void StartCommandLineShare(DaemonHost& host, const ShareOptions& options);

// Without a window to ask, a waiting viewer is logged with the identity it claims, and waits.
void LogPendingViewers(DaemonHost& host);

}  // namespace mirell::ui
