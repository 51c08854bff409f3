/* slots.pml - the wrapper's slots and lanes, for the model checker spin.
 *
 * Checks that no lane starves, whatever the other senders and the servers do. A lane is the queue of one sender's
 * transfers to one path. This model only counts transfers; connector.pml checks that each one is answered once.
 *
 *   lane 0   the first greedy sender, to a path that hangs
 *   lane 1   the second greedy sender, to the same path
 *   lane 2   the first greedy sender, to a path that answers, with two transfers at a time
 *   lane 3   a modest sender, to the path that answers, with one transfer at a time
 *
 * Each name below turns one rule off; the model must fail with it:
 *   NO_TURNS        the first lane that may take a slot gets it, and stays the first
 *   NO_SHARES       a lane may take any free slot, without a limit for its sender and path
 *   NO_JOIN_SHARES  a transfer is accepted while there is room, without a limit for its sender and path
 *   NO_BOUND        every transfer is accepted
 *   NO_END          a transfer waits for its slot without a time limit
 *   LOSE_LANE       a lane leaves the turns when it is served, even if more of its transfers wait
 */
#define LANES     4
#define MODEST    3
#define SLOTS     5
#define BOUND     10    /* transfers accepted at a time */
#define MOST      5     /* most transfers that one lane submits at a time */
#define END_TICKS 3     /* length of the longest wait; stands for 20 s */

byte waiting[LANES];
byte slots[LANES];
byte age[LANES];                    /* of the lane's first waiting transfer, in ticks */
byte passed[LANES];                 /* slots that others got while this lane could take one */
chan turns = [LANES] of { byte };   /* lanes with waiting transfers; the front one is next */

/* Numbers of a lane's sender and of its path: slots taken, and transfers accepted. */
#define AS_SENDER(of, l) (l == 0 || l == 2 -> of(0) + of(2) : of(l))
#define AS_PATH(of, l)   (l < 2 -> of(0) + of(1) : of(2) + of(3))
#define IN_SLOT(l)       slots[l]
#define ACCEPTED(l)      (slots[l] + waiting[l])
#define FREE_SLOTS       (SLOTS - (slots[0] + slots[1] + slots[2] + slots[3]))
#define FREE_PLACES      (BOUND - (ACCEPTED(0) + ACCEPTED(1) + ACCEPTED(2) + ACCEPTED(3)))
#define WITHIN(had, times, free) (free > 0 && (had == 0 || had < times * free))

#ifdef NO_SHARES
#define MAY_TAKE(l) (FREE_SLOTS > 0)
#else
#define MAY_TAKE(l) (WITHIN(AS_SENDER(IN_SLOT, l), 2, FREE_SLOTS) && WITHIN(AS_PATH(IN_SLOT, l), 4, FREE_SLOTS))
#endif

#ifdef NO_BOUND
#define MAY_JOIN(l) true
#elif defined(NO_JOIN_SHARES)
#define MAY_JOIN(l) (FREE_PLACES > 0)
#else
#define MAY_JOIN(l) (WITHIN(AS_SENDER(ACCEPTED, l), 2, FREE_PLACES) && WITHIN(AS_PATH(ACCEPTED, l), 4, FREE_PLACES))
#endif

/* A lane is in the turns at most once, and only while transfers wait in it. */
inline enqueue(l) {
    if
    :: MAY_JOIN(l) ->
        if
        :: waiting[l] == 0 -> turns!l
        :: else
        fi;
        waiting[l]++
    :: else -> assert(l != MODEST)      /* it has no transfers, so it is accepted */
    fi;
    assert(FREE_PLACES >= 0)
}

/* The first waiting transfer of a lane leaves it. The next one came later or at the same time. */
inline shift(l) {
    waiting[l]--;
    if
    :: true -> age[l] = 0
    :: waiting[l] > 0 && age[l] > 0
    fi
}

inline endOverdue() {
    k = 0;
    do
    :: k < LANES ->
        if
        :: waiting[k] > 0 && age[k] >= END_TICKS ->
            assert(k != MODEST);        /* it gets its slot in time */
            shift(k);
            if :: waiting[k] == 0 -> turns??eval(k); passed[k] = 0 :: else fi
        :: else -> k++
        fi
    :: else -> break
    od
}

/* Counts, for each other lane that may take a slot, that it was passed over. */
inline passOthers(l) {
    d_step {
        n = 0;
        do
        :: n < LANES ->
            if
            :: n != l && waiting[n] > 0 && MAY_TAKE(n) -> passed[n]++; assert(passed[n] < LANES)
            :: else
            fi;
            n++
        :: else -> break
        od;
        n = 0
    }
}

/* Removes the lane from the turns; appends it again if more transfers wait in it. */
inline serve(l) {
    passOthers(l);
    passed[l] = 0;
    slots[l]++;
    shift(l);
#ifdef LOSE_LANE
    turns??eval(l)
#elif defined(NO_TURNS)
    if :: waiting[l] == 0 -> turns??eval(l) :: else fi
#else
    turns??eval(l);
    if :: waiting[l] > 0 -> turns!l :: else fi
#endif
}

/* Lanes before the first one that may take a slot keep their places. */
inline giveSlots() {
    left = len(turns);
    do
    :: left > 0 ->
        d_step {
            k = 0;
            found = LANES;
            /* A full rotation leaves the list unchanged. */
            do
            :: k < len(turns) ->
                turns?n; turns!n; k++;
                if :: found == LANES && MAY_TAKE(n) -> found = n :: else fi
            :: else -> break
            od;
            n = 0
        }
        if
        :: found < LANES -> serve(found)
        :: else -> left = 0
        fi
    :: else -> break
    od;
    k = 0; found = 0; left = 0
}

inline check() {
    d_step {
        assert(FREE_SLOTS >= 0);
        k = 0;
        do
        :: k < LANES ->
            if
            :: turns??[eval(k)] -> assert(waiting[k] > 0)
            :: else -> assert(waiting[k] == 0)
            fi;
            assert(waiting[k] == 0 || !MAY_TAKE(k));     /* no lane waits that may take a slot */
            assert(age[k] < END_TICKS || waiting[k] == 0);
            k++
        :: else -> break
        od;
        k = 0
    }
}

/* One round of the worker. */
inline work() {
#ifndef NO_END
    endOverdue();
#endif
    giveSlots();
    check()
}

/* Time passes: transfers to the answering path end, and waiting transfers grow older. */
inline tick() {
    d_step {
        slots[2] = 0;
        slots[MODEST] = 0;
        k = 0;
        do
        :: k < LANES ->
            if :: waiting[k] > 0 && age[k] < END_TICKS -> age[k]++ :: else fi;
            k++
        :: else -> break
        od;
        k = 0
    }
}

active proctype Wrapper() {
    byte k, n, found, left;
    do
    :: atomic { ACCEPTED(0) < MOST -> enqueue(0); if :: work() :: true fi }
    :: atomic { ACCEPTED(1) < MOST -> enqueue(1); if :: work() :: true fi }
    :: atomic { ACCEPTED(2) < 2 -> enqueue(2); if :: work() :: true fi }
    :: atomic { ACCEPTED(MODEST) == 0 -> enqueue(MODEST); if :: work() :: true fi }
    :: atomic { slots[0] > 0 -> slots[0]--; work() }     /* given up after 90 s */
    :: atomic { slots[1] > 0 -> slots[1]--; work() }
    :: atomic { tick(); work() }
    od
}
