#pragma once
// The one parallel loop of the library: oneTBB parallel_for over a blocked range with
// grain 1 and the automatic partitioner, then the cancellation check. fn(begin, end)
// receives one sub-range and must write only what belongs to it. Scratch memory per
// thread: tbb::enumerable_thread_specific of std::vector<float, ManagedAllocator<float>>,
// created outside the loop, never an allocation per iteration.

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include <imageprocessing/status.h>

namespace zorl {

inline constexpr std::size_t kParallelGrain = 1;  // tasks are rows or bands: already coarse

template <class Index, class F>
void parallelFor(Index begin, Index end, F&& fn, const ImageProcessingStatus* status = nullptr) {
    if (end > begin) {
        tbb::parallel_for(
            tbb::blocked_range<Index>(begin, end, kParallelGrain),
            [&fn](const tbb::blocked_range<Index>& r) { fn(r.begin(), r.end()); }, tbb::auto_partitioner());
    }
    ImageProcessingStatus::throwIfCancelled(status);
}

}  // namespace zorl
