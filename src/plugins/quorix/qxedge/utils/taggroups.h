#pragma once
// The taggroups property shared by qxedgesink and qxedgesrc: its help text
// and the parser of its "+"-separated value. Needs no GStreamer.

#include <string>
#include <vector>

// Help text (the property blurb) for the element role "sink" or "src"; any
// other role gets the common part only. The text lives for the life of the
// process, as GObject keeps blurbs without copying them.
const char *tag_group_usage_manual(std::string role);

// Splits at every run of one or more '+'. A leading '+' gives an empty first
// name, a trailing one adds nothing, an empty text gives one empty name.
// No trimming, no de-duplication: the elements report unknown names later.
std::vector<std::string> split(const char *text);
