// The emitter's settings, read from a store that is started and loaded. Codes are those of statsd.h.
#pragma once

#include "statsd_internal.h"

// Reads the level and the size in bytes of the emitter's log.
void statsd_get_log_config(int *level, int *size);

// Fills in `conf`, which is zeroed; what failed half way is freed by statsd_free_config, too. Returns
// STATSD_RC_SUCCESS, STATSD_RC_INVALID_XMLVAL, STATSD_RC_XMLLIB_FAIL or STATSD_RC_OUTOFMEMORY.
STATSD_RC statsd_get_config(STATSD_CONF *conf);

// Frees what the settings own.
void statsd_free_config(STATSD_CONF *conf);
