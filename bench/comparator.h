// The benchmark messages built as protocol buffers from the same content as the ovrin_sm side.
// Each fill writes into a message the caller owns (on the heap, the stack or an arena).
#ifndef OVRIN_BENCH_COMPARATOR_H
#define OVRIN_BENCH_COMPARATOR_H

#include "bench/content.h"
#include "sm_bench.pb.h"

namespace bench {

void fill(ovrin_bench::ConnHdl &m, const Small &c);
void fill(ovrin_bench::InEvent &m, const Medium &c);
void fill(ovrin_bench::RespEvent &m, const Large &c);
void fill(ovrin_bench::SessAttrQueryResp &m, const Bulk &c);

} // namespace bench

#endif
