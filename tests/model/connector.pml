/* connector.pml - the connector's two threads over the curl wrapper, for the model checker spin.
 *
 * The question: can a request be stranded, answered twice, or answered after a stop, in whatever
 * order the submitting thread and the worker take their steps? The submitter hands a transfer to the
 * multi handle first and puts it on the connector's list second; the worker may finish it in between.
 *
 * Each name below turns one rule off. check_model.py runs the model as it is, where nothing may go
 * wrong, and then with each name defined, where something must:
 *   COUNT_UNFINISHED  "running" counts what is still transferring, as libcurl's own count does
 *   OFFER_ONCE        a finished transfer is handed out a single time, as libcurl's own queue does
 *   SHUT_GATE         only a handshake opens the gate: not its leader's end, and no deadline
 *   NO_LIST_CHECK     a transfer that is not on the list yet is completed all the same
 *   DEAF_TO_STOP      a stop is not looked at when a finished transfer is handed out
 *   LATE_BOUND        what is over the queue's bound is dropped by the worker, not refused to the submitter
 *   SILENT_END        a transfer that waited for too long is taken out without an answer
 * STOP adds a thread that stops the wrapper at any moment. Which of those that wait for a slot gets one is open
 * here: slots.pml is about that.
 */
#define REQUESTS 3
#define SLOTS    1
#define BOUND    2     /* transfers that the wrapper has at a time; beyond, it refuses */

/* Where the wrapper has a transfer. */
mtype = { Unsent, Pending, Waiting, Queued, Active, Ready, Given, Gone };

mtype at[REQUESTS] = Unsent;
bool listed[REQUESTS];        /* on the connector's list of requests in flight */
byte calls[REQUESTS];         /* callbacks made */
byte accepted;                /* transfers that the wrapper took */
byte inside;                  /* those of them that it still has */
bool submitted;               /* the submitter is through */
bool idle = true;             /* the connector's flag: no loop is scheduled or running */
byte scheduled;               /* calls of HandleRequest that wait on the worker's context */
bool stopped;

/* The gate of the one host that all of them go to. */
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

/* What the caller of the wrapper reads as "running". */
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

/* Slots for those whose turn it is, whichever these are. */
inline giveSlots() {
    do
    :: slotsTaken < SLOTS && at[0] == Queued -> at[0] = Active
    :: slotsTaken < SLOTS && at[1] == Queued -> at[1] = Active
    :: slotsTaken < SLOTS && at[2] == Queued -> at[2] = Active
    :: slotsTaken == SLOTS || !anyQueued -> break
    od
}

/* The worker takes over what was added. The first one to a cold host leads. */
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

/* A round of network work: any of the active ones may pass its handshake, and may end. After a wait
 * at least one thing has happened; if nothing ever can, only an addition or a stop ends the wait. */
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

/* Those that were handed out and not taken are offered again. */
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

/* fdSelect: it comes back at once when nothing runs; otherwise it waits, unless something is unclaimed,
 * has just been added, or a stop wakes it. */
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

/* m_RemoveEasyHandle: the last one out of a host lets it be forgotten. */
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

/* m_HttpAsyncRequest for each request, one after the other. */
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
    /* Nobody can take a step any more. */
    end_all:
    do
    :: timeout ->
        assert(submitted);
        assert(calls[0] + calls[1] + calls[2] <= accepted);
        assert(calls[0] <= 1 && calls[1] <= 1 && calls[2] <= 1);
        if
        :: !stopped ->
            /* All that were accepted, and none that was refused. */
            assert(accepted >= BOUND);
            assert(calls[0] + calls[1] + calls[2] == accepted);
            assert(inside == 0 && members == 0);
            assert(idle && scheduled == 0)
        :: else -> assert(scheduled == 0)
        fi;
        break
    od
}
