#pragma once

#include "ScratchFolder.h"

#include "entry/Environment.h"
#include "link/LiveFeed.h"

/// A test copy whose service isn't there: nothing answers on its ports.
Environment nowhere(const ScratchFolder& scratch);

/// The feed's events, made by hand rather than heard.
LiveFeed::Event feedMessage(const QByteArray& frame);
LiveFeed::Event feedLive(bool up);
