/* connector.pml - the connector's two threads over the curl wrapper, for the model checker spin.
 *
 * Checks that no request is left unanswered, answered twice, or answered after a stop, for every order of the
 * steps of the submitting thread and the worker. The submitter gives a transfer to the multi handle first and
 * puts it on the connector's list second; the worker may finish it in between.
 *
 * Each name below turns one rule off. check_model.py checks that the whole model holds, and that the model fails
 * with the names that it lists:
 *   COUNT_UNFINISHED  "running" counts unfinished transfers only, like libcurl's own count
 *   OFFER_ONCE        a finished transfer is handed out only once, like by libcurl's own queue
 *   SHUT_GATE         only a handshake opens the gate: neither the end of its leader nor a deadline does
 *   NO_LIST_CHECK     a transfer that is not on the list yet is completed all the same
 *   DEAF_TO_STOP      a finished transfer is handed out without a check for a stop
 *   LATE_BOUND        the worker drops transfers over the queue's bound; the submitter is not refused
 *   SILENT_END        a transfer that waited too long is removed without an answer
 * STOP adds a thread that stops the wrapper at any moment. This model leaves open which waiting transfer gets a
 * free slot; slots.pml models that.
 */
#define REQUESTS 3
#define SLOTS    1
#define BOUND    2     /* most transfers of the wrapper at a time; it refuses more */

/* State of a transfer in the wrapper. */
mtype = { Unsent, Pending, Waiting, Queued, Active, Ready, Given, Gone };

mtype at[REQUESTS] = Unsent;
bool listed[REQUESTS];        /* on the connector's list of requests in flight */
byte calls[REQUESTS];         /* callbacks made */
byte accepted;                /* transfers that the wrapper accepted */
byte inside;                  /* accepted transfers that it still has */
bool submitted;               /* the submitter has finished */
bool idle = true;             /* the connector's flag: no loop is scheduled or running */
byte scheduled;               /* calls of HandleRequest queued on the worker's context */
bool stopped;

/* The gate of the one host that all transfers go to. */
byte members;
bool gateOpen;

#define ACTIVE(i)  (at[i] == Active)
#define anyActive  (ACTIVE(0) || ACTIVE(1) || ACTIVE(2))
#define anyWaiting (at[0] == Waiting || at[1] == Waiting || at[2] == Waiting)
#define anyPending (at[0] == Pending || at[1] == Pending || at[2] == Pending)
#define anyQueued  (at[0] == Queued || at[1] == Queued || at[2] == Queued)
#define slotsTaken (ACTIVE(0) + ACTIVE(1) + ACTIVE(2))
#define DONE(i)    (at[i] == Ready || at[i] == Given)
#define anyDone    (DONE(0) || DONE(1) || DONE(2))
#define noneListed (!listed[0] && !listed[1] && !listed[2])

/* The number that the wrapper reports as "running". */
inline count(running) {
    d_step {
        running = 0; k = 0;
        do
        :: k < REQUESTS ->
            if
#ifdef COUNT_UNFINISHED
            :: at[k] == Active -> running++
#else
            :: at[k] != Unsent && at[k] != Gone -> running++
#endif
            :: else
            fi;
            k++
        :: else -> break
        od;
        k = 0;
        if :: stopped -> running = 0 :: else fi
    }
}

/* Gives free slots to queued transfers, in any order. */
inline giveSlots() {
    do
    :: slotsTaken < SLOTS && at[0] == Queued -> at[0] = Active
    :: slotsTaken < SLOTS && at[1] == Queued -> at[1] = Active
    :: slotsTaken < SLOTS && at[2] == Queued -> at[2] = Active
    :: slotsTaken == SLOTS || !anyQueued -> break
    od
}

/* The worker takes over added transfers. The first one to a host without connections is the leader. */
inline adopt() {
    atomic {
        k = 0;
        do
        :: k < REQUESTS ->
            if
#ifdef LATE_BOUND
            :: at[k] == Pending && inside > BOUND -> at[k] = Gone; inside--
            :: at[k] == Pending && inside <= BOUND && (members == 0 || gateOpen) -> at[k] = Queued; members++
            :: at[k] == Pending && inside <= BOUND && members > 0 && !gateOpen -> at[k] = Waiting; members++
#else
            :: at[k] == Pending && (members == 0 || gateOpen) -> at[k] = Queued; members++
            :: at[k] == Pending && members > 0 && !gateOpen -> at[k] = Waiting; members++
#endif
            :: else
            fi;
            k++
        :: else -> break
        od;
        k = 0;
        giveSlots()
    }
}

/* A transfer ends, with or without success. */
#ifdef SHUT_GATE
#define END(i) at[i] = Ready
#else
#define END(i) at[i] = Ready; gateOpen = true
#endif

/* A transfer has waited 20 s for a slot. */
#ifdef SILENT_END
#define OVERDUE(i) at[i] = Gone; inside--; members--; listed[i] = false
#else
#define OVERDUE(i) END(i)
#endif

/* A round of network work: each active transfer may finish its handshake, and may end. After a wait at
 * least one of these has happened; where none is possible, only an addition or a stop ends the wait. */
inline perform(waited) {
    atomic {
        if
        :: !waited
        :: waited && ACTIVE(0) -> END(0)
        :: waited && ACTIVE(1) -> END(1)
        :: waited && ACTIVE(2) -> END(2)
        :: waited && anyActive && !gateOpen -> gateOpen = true
#ifndef SHUT_GATE
        :: waited && anyWaiting && !gateOpen -> gateOpen = true    /* the deadline */
#endif
        :: waited && at[0] == Queued -> OVERDUE(0)
        :: waited && at[1] == Queued -> OVERDUE(1)
        :: waited && at[2] == Queued -> OVERDUE(2)
        :: else -> (anyPending || stopped)
        fi;
        k = 0;
        do
        :: k < REQUESTS && ACTIVE(k) -> END(k); k++
        :: k < REQUESTS -> k++
        :: else -> break
        od;
        k = 0
    }
}

inline letThrough() {
    atomic {
        k = 0;
        do
        :: k < REQUESTS ->
            if :: at[k] == Waiting && gateOpen -> at[k] = Queued :: else fi;
            k++
        :: else -> break
        od;
        k = 0;
        giveSlots()
    }
}

/* Offers transfers again that were handed out and not removed. */
inline offerAgain() {
#ifndef OFFER_ONCE
    d_step {
        k = 0;
        do
        :: k < REQUESTS -> if :: at[k] == Given -> at[k] = Ready :: else fi; k++
        :: else -> break
        od;
        k = 0
    }
#else
    skip
#endif
}

/* fdSelect: returns at once when nothing runs. Otherwise it waits, unless a finished transfer is
 * unclaimed, one has just been added, or a stop wakes it. */
inline waitAndWork(running) {
    offerAgain();
    adopt();
    count(running);
    if
    :: running == 0 && !anyActive && !anyWaiting
    :: else ->
        waits = !anyDone && !anyPending && !stopped;
        if
        :: stopped
        :: !stopped -> adopt(); perform(waits); letThrough()
        fi
    fi;
    count(running)
}

/* m_RemoveEasyHandle: the wrapper forgets a host when its last transfer is removed. */
inline takeOut(i) {
    atomic {
        at[i] = Gone;
        inside--;
        members--;
        if :: members == 0 -> gateOpen = false :: else fi
    }
}

/* m_RemoveRequest, under the list's lock. */
inline unlist(i) {
    atomic { listed[i] = false; if :: noneListed -> idle = true :: else fi }
}

/* m_HandleCompletedRequest with m_HandleRequestResult. */
inline readAll() {
    j = 0;
    do
    :: j < REQUESTS ->
        atomic {
            mine = false;
            if
#ifdef DEAF_TO_STOP
            :: at[j] == Ready -> at[j] = Given; mine = true; late = stopped
#else
            :: at[j] == Ready && !stopped -> at[j] = Given; mine = true; late = stopped
#endif
            :: else
            fi
        }
        if
        :: mine ->
            assert(!late);
            if
#ifdef NO_LIST_CHECK
            :: true ->
#else
            :: !listed[j]              /* logged, and offered again */
            :: listed[j] ->
#endif
                takeOut(j);
progress:       calls[j]++;
                unlist(j)
            fi
        :: else
        fi;
        j++
    :: else -> break
    od;
    j = 0
}

/* m_HttpAsyncRequest for each request in turn. */
proctype Submitter() {
    byte i;
    bool taken;
    do
    :: i < REQUESTS ->
        atomic {
#ifdef LATE_BOUND
            taken = !stopped;
#else
            taken = !stopped && inside < BOUND;
#endif
            if :: taken -> at[i] = Pending; accepted++; inside++ :: else fi
        }
        if
        :: taken ->
            atomic {
                assert(at[i] != Gone);     /* a freed request must not be listed */
                listed[i] = true;
                if :: idle -> scheduled++; idle = false :: else fi
            }
        :: else
        fi;
        i++
    :: else -> break
    od;
    submitted = true
}

proctype Worker() {
    byte j, k, running;
    bool waits, mine, late;
    end_idle:
    do
    :: scheduled > 0 ->
        scheduled--;
        adopt();                       /* Perform */
        do
        :: true ->
            waitAndWork(running);
            readAll();
            if :: running == 0 -> break :: else fi
        od
    od
}

#ifdef STOP
proctype Stopper() { stopped = true }
#endif

init {
    atomic {
        run Submitter();
        run Worker();
#ifdef STOP
        run Stopper()
#endif
    }
    /* Final state: no thread can take another step. */
    end_all:
    do
    :: timeout ->
        assert(submitted);
        assert(calls[0] + calls[1] + calls[2] <= accepted);
        assert(calls[0] <= 1 && calls[1] <= 1 && calls[2] <= 1);
        if
        :: !stopped ->
            /* Every accepted request was answered, and no refused one. */
            assert(accepted >= BOUND);
            assert(calls[0] + calls[1] + calls[2] == accepted);
            assert(inside == 0 && members == 0);
            assert(idle && scheduled == 0)
        :: else -> assert(scheduled == 0)
        fi;
        break
    od
}
