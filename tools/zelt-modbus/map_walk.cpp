#include "tools/zelt-modbus/map_walk.h"

#include <algorithm>

namespace zelt_cli {

MapWalk::MapWalk(int first, int last, int largestBlock)
    : at(first), last(last), largestBlock(std::max(1, largestBlock)), size(this->largestBlock) {}

int MapWalk::count() const {
    int block = size;
    if (refusedBound >= 0) {
        block = (refusedBound - at + 1) / 2;
    } else if (holesSoFar > 0) {
        const bool stretchEnds = previousRun > 0 && holesSoFar == previousHoles;
        block = stretchEnds ? previousRun : 1;
    } else if (runSoFar > 0 && previousRun > 0) {
        if (runSoFar == previousRun)
            block = 1;
        else if (runSoFar < previousRun)
            block = previousRun - runSoFar;
    }
    return std::max(1, std::min({block, largestBlock, last - at + 1}));
}

void MapWalk::answered(bool readable) {
    const int block = count();
    if (readable) {
        if (holesSoFar > 0) {
            previousHoles = holesSoFar;
            holesSoFar = 0;
        }
        at += block;
        runSoFar += block;
        if (refusedBound >= 0 && at > refusedBound) refusedBound = -1;
        size = std::min(2 * block, largestBlock);
        return;
    }
    if (block > 1 && holesSoFar == 0) {
        refusedBound = at + block - 1;
        return;
    }
    if (block == 1) {
        ++at;
        ++holesSoFar;
    } else {
        // The stretch of holes went on past the predicted end: stop guessing until it ends.
        previousHoles = 0;
    }
    refusedBound = -1;
    size = 1;
    if (runSoFar > 0) {
        previousRun = runSoFar;
        runSoFar = 0;
    }
}

}  // namespace zelt_cli
