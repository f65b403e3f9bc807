// A share started from the command line ("--share-window", "--share-monitor"), for headless use,
// scripts and hotkeys, with the admission rule given beside it ("--allow", "--admit-everyone").
#pragma once

#include <span>

#include "daemon_host.h"
#include "instance_request.h"
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

// Without a window to ask, a waiting viewer is logged at warn with the identity it claims and
// the command that decides about it ("mirell-ui --admit PEER" + `instance_options`, the options
// that name this instance when it is not the default one), and waits.
void LogPendingViewers(DaemonHost& host, const std::string& instance_options);

// The options that name this instance to a later start ("--rtsp-port N --pipe ADDRESS", each only
// when it is not the default), with a blank in front; empty for the default instance.
std::string InstanceOptions(const StartOptions& start);

// A later start's share or decision, carried out here (interface thread). A show request is the
// window's to answer and gets "nothing to show" here.
InstanceReply AnswerInstanceRequest(DaemonHost& host, const InstanceRequest& request);

}  // namespace mirell::ui
