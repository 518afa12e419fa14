#pragma once
// qxedgesrc's choice of pairing: the synchroniser ("compatible", the default)
// or the frame-exact engine ("frame-id"), the GObject enum that names them,
// and the counters the element offers as its "stats" property.

#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>

#include "pairing.h"

enum QxEdgeSrcPairing { QX_EDGESRC_PAIRING_COMPATIBLE = 0, QX_EDGESRC_PAIRING_FRAME_ID = 1 };

#define QX_TYPE_EDGESRC_PAIRING (qx_edgesrc_pairing_get_type())
GType qx_edgesrc_pairing_get_type();

// An engine for the tag groups the element subscribes to: frames wait for
// the result kinds in that list, for at most resultWaitMs.
std::unique_ptr<PairingEngine> makePairingEngine(const std::vector<std::string> &taggroups, guint resultWaitMs);

// The counters as a "qxedgesrc-stats" structure (caller owns it). Without an
// engine only the mode and the frames pushed are known.
GstStructure *pairingStats(QxEdgeSrcPairing mode, const PairingEngine *engine, guint64 buffersPushed,
                           guint64 samplesRejected);
