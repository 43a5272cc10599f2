// The text of one measured value: sampling, tags, line. Codes are those of statsd.h.
#pragma once

#include "statsd_internal.h"

// Whether values of a type are sampled.
bool statsd_should_use_sample_rate(STATSD_METRIC_TYPE type);

// Decides by chance whether a value is sent: always with a rate of 1.0 and above, never with 0.
bool statsd_should_send(float rate);

// Join tags into `text` of STATSD_TAG_TEXT_LEN bytes; line ends become blanks. Return STATSD_RC_SUCCESS, or
// STATSD_RC_DATA_TOO_LONG with what fits: whole pairs, or the first bytes of the custom tag's text.
//   base tags    "key:value,key:value"
//   custom tags  "custom,MonitorName:value", each where there is one
STATSD_RC statsd_generate_base_tags(const STATSD_TAG *tags, int tag_num, char *text);
STATSD_RC statsd_generate_custom_tags(const char *custom_tag, const STATSD_TAG *tags, int tag_num,
                                      char *text);

// Composes "name:value|type|@rate|#tags" in `data` of STATSD_DATA_LEN bytes; a rate of 1.0 and empty tags are
// left out. Returns STATSD_RC_SUCCESS, or STATSD_RC_DATA_TOO_LONG with the first bytes of it.
STATSD_RC statsd_prepare_sending_data(const STATSD_METHOD_CONF *conf, int value, float rate, const char *tags,
                                      char *data);
