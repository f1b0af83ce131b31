#pragma once
// Chooses the blocks a map reads, from what the answers so far have shown. Proving an address unreadable
// takes a read of it alone, and each readable run takes at least one read, so no walk can spend less than
// one request per unreadable address and per readable run; this walk stays close to that:
// - an address just proved unreadable is followed by single reads: most stretches of holes go on;
// - a readable run grows by blocks that double after each success (1, 2, 4, ...), and a refused block is
//   halved until its first unreadable address is read alone;
// - the previous run and stretch of holes predict the next ones: a run is read on at once to the previous
//   run's length and then its next address alone, and a stretch of holes as long as the previous one is
//   followed by a block as long as the previous run. Tables that repeat a layout so take one request per run
//   and per hole, and runs of random length a guess from their own distribution.
// Pure: it never reads, the caller does and reports each answer.

namespace zelt_cli {

class MapWalk {
public:
    MapWalk(int first, int last, int largestBlock);

    bool done() const { return at > last; }
    // The block to read next: `count()` addresses from `position()`.
    int position() const { return at; }
    int count() const;
    // The answer to that block: readable, or refused as "illegal data address" (or "value").
    void answered(bool readable);

private:
    int at;
    int last;
    int largestBlock;
    int size;               // the next block while a run grows
    int refusedBound = -1;  // a refused block ends here: it holds an unreadable address
    int runSoFar = 0;       // readable addresses read since the last unreadable one
    int holesSoFar = 0;     // unreadable addresses proved since the last readable one
    int previousRun = 0;    // 0: none seen yet
    int previousHoles = 0;  // 0: none seen yet, or the prediction failed
};

}  // namespace zelt_cli
