// The payloads of the four requests: filled from the request record, turned into network byte order,
// and the answers checked and turned back.
#pragma once

#include "rexec.h"
#include "trnexecgrpfo.h"
#include "trnexecnotice.h"
#include "trnexecscript.h"

#include <cstdint>

// The one buffer a worker sends from; a request uses the member of its kind.
union REXEC_PAYLOAD {
    ZYNEXECGRPFO_EX_IN_PARAM grpfo;
    ZYNEXECSCRIPT_EX_IN_PARAM exscript;
    ZYNEXEC_EXNOTICE_IN_PARAM notice;
};

// Fill a zeroed payload, in host byte order. A script name is cut at 255 characters, traced at
// level 2.
void rexec_fill_grpfo(const REXEC_INFO *info, ZYNEXECGRPFO_EX_IN_PARAM *data);
void rexec_fill_exscript(const REXEC_INFO *info, ZYNEXECSCRIPT_EX_IN_PARAM *data);
void rexec_fill_notice(const REXEC_INFO *info, ZYNEXEC_EXNOTICE_IN_PARAM *data);
void rexec_fill_clear(const REXEC_INFO *info, ZYNEXEC_EXNOTICE_IN_PARAM *data);

// Turn the integers of a payload into network byte order (`div` TRANS_CONV_BYTEORDER_REQ |
// TRANS_CONV_BYTEORDER_NETWIRK) or into host byte order (TRANS_CONV_BYTEORDER_RES |
// TRANS_CONV_BYTEORDER_NETWIRK), in place. Null `data`, a negative `size` and any other `div` change
// nothing. The response of notice is followed by as many monitors as its `monnum` says, in network
// byte order still: the caller has bounded it with rexec_bound_monnum.
void rexec_conv_byteorder_grpfo(int div, ZYNEXECGRPFO_EX_IN_PARAM *data, int size);
void rexec_conv_byteorder_exscript(int div, void *data, int size);
void rexec_conv_byteorder_notice(int div, void *data, int size);

// Bounds `monnum` of a notice or clear response in network byte order, of `size` bytes (264 at
// least), to the monitors that really arrived; a negative one becomes 0.
void rexec_bound_monnum(ZYNEXEC_EXNOTICE_OUT_PARAM *data, std::uint32_t size);
