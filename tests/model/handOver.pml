/*
 * Model of the dispatcher's hand-over: one thread waits, and passes the wait on
 * to another thread of the pool before it calls a handler back.
 * docs/threading.md says what the model proves and what not.
 *
 * scripts/check-model SCENARIO [MACRO ...] searches all its states. A scenario
 * S_... is one of scenarios.pml. A mutation
 * breaks the model in one place, to show that the checks see it:
 *
 * M_SILENT_ENABLE           a descriptor is enabled without a wake-up byte
 * M_SILENT_LEAVE            the same for one that asked for itself during its
 *                           callback, with another thread inside the handler
 * M_STAYS_ENABLED           a descriptor is watched during its callback
 * M_BY_NUMBER               what is ready is served by its number alone, not
 *                           only what that wait watched
 * M_DISPATCH_BEFORE_LOCK    the pool is asked for the next thread before the
 *                           registration lock is taken,
 * M_DISPATCH_WHEN_CHOSEN    ... only when there is something to serve,
 * M_DISPATCH_AFTER_CHOICE   ... when the descriptor has been claimed,
 * M_DISPATCH_AFTER_UNLOCK   ... when the lock has been released as well,
 * M_DISPATCH_AFTER_CALLBACK ... when the callback has ended
 * M_DESTROY_AT_ONCE         a handler is destroyed with threads inside it
 * M_NO_PIN                  nothing keeps a handler during its refresh
 * M_SHARED_CONDITION        callers that the pool has no room for wait on the
 *                           condition of its workers
 * M_FULL_PAIR_BLOCKS        a wake-up byte waits for room
 * M_UNDRAINED               the waiting thread leaves the byte in the pair
 * M_UNCOUNTED_TEARDOWN      the teardown does not count itself into handlers
 * M_INTERRUPT_AFTER_STOP    a thread that comes back late sends its byte
 * M_CLOSED_PAIR_FAILS       a thread that begins to wait too late fails
 *
 * One step of the model is what no other thread can look into. What a thread
 * does under the pool's lock or the wake-up lock is one step, because these
 * are taken last and nothing that they guard is touched without them.
 */

/* What a callback answers. */
#define CONTINUE 0
#define REFRESH 2
#define UNREGISTER 4
#define REMOVE 8

#define NONE 255

#include "scenarios.pml"

#ifndef RETIREMENTS
#define RETIREMENTS 0
#endif

#define THREADS (WORKERS + JOINERS)

inline anyAnswer()
{
    if
    :: answer = CONTINUE
    :: answer = UNREGISTER
    :: answer = REMOVE
    fi
}

/* ---- State --------------------------------------------------------------- */

/* The world: messages in each descriptor and yet to come, the record whose
 * file a descriptor's number stands for. */
byte data[RECORDS];
byte toCome[RECORDS];
byte current[RECORDS];

/* The socket pair, and whether the teardown has closed it. */
byte bytes;
bool closed;

/* Under the registration lock. A record that is not registered is removed; it
 * is erased, unseen by the model, when its count is 0. */
bool locked;
bool registered[RECORDS];
bool isEnabled[RECORDS];
byte recordCount[RECORDS];
byte handlerCount[HANDLERS];
bool leaving[HANDLERS];       /* the removal flag */
byte pins[HANDLERS];
byte waitSet[THREADS];        /* records watched since its wait began */
#ifdef TIMER
#define TIMER_OWNER 0
bool timerExists = true;     /* and is not cancelled */
bool timerEnabled = true;
bool timerCount;
bool due;
byte ticks = TICKS;
#endif

/* The engine's flag, set and read without a lock. */
bool stopping;

/* Under the pool's lock. */
mtype = { UNBORN, AWAKE, ASLEEP, TIMED_OUT, SURPLUS };
mtype state[THREADS];
byte threads;
byte idle;
byte pending;
byte exited;
byte callers;
bool poolShutDown;
byte retirements = RETIREMENTS;

/* Seen by the checks only: who is where, in truth. */
byte waiters;
byte inside[HANDLERS];
bool insideRecord[RECORDS];
byte served[RECORDS];
bool wanted[RECORDS];         /* data in it has to be served */
bool destroyed[HANDLERS];
bool mayStop;
bool stopped;

#define WATCHED(record) \
    (registered[record] && isEnabled[record] && recordCount[record] == 0 && \
     !leaving[OWNER(record)])
#define ARMED (timerExists && timerEnabled && !leaving[TIMER_OWNER])
#ifdef TIMER
#define OWNS_TIMER(handler) \
    (handler == TIMER_OWNER && (timerExists || timerCount))
#else
#define OWNS_TIMER(handler) false
#endif
#define MASK(index) (1 << (index))

/* What a thread does under the registration lock touches at most one thing that
 * others reach without it: the socket pair or the pool. So it may count as one
 * step; FINE makes it the single steps that it is. */
#ifdef FINE
#define SECTION
#else
#define SECTION atomic
#endif

/* ---- Locks and wake-ups -------------------------------------------------- */

inline lock()
{
    atomic { !locked -> locked = true }
}

inline unlock()
{
    locked = false
}

/* A full pair is a pending wake-up. */
inline interrupt()
{
    atomic
    {
        assert(!closed);
#ifdef M_FULL_PAIR_BLOCKS
        bytes < CAPACITY;
#endif
        if
        :: bytes < CAPACITY -> bytes++
        :: else
        fi
    }
}

/* By the threads of the loop themselves: a shutdown needs no more wake-ups,
 * and its teardown closes the pair. */
inline interruptLoop()
{
    if
    :: wake && !stopping -> interrupt()
#ifdef M_INTERRUPT_AFTER_STOP
    :: wake && stopping -> interrupt()
#endif
    :: else
    fi;
    wake = false
}

/* ---- The pool ------------------------------------------------------------ */

#ifdef M_SHARED_CONDITION
#define WAITS_FOR_WORK(thread) \
    (state[thread] == ASLEEP || state[thread] == TIMED_OUT || \
     state[thread] == SURPLUS)
#else
#define WAITS_FOR_WORK(thread) \
    (state[thread] == ASLEEP || state[thread] == TIMED_OUT)
#endif

/* Wakes any one of those that wait, if there is one. One whose wait has just
 * timed out may still take the notification with it. */
inline notifyOne()
{
    if
    :: WAITS_FOR_WORK(0) -> state[0] = AWAKE
    :: WAITS_FOR_WORK(1) -> state[1] = AWAKE
#if WORKERS + JOINERS > 2
    :: WAITS_FOR_WORK(2) -> state[2] = AWAKE
#endif
#if WORKERS + JOINERS > 3
    :: WAITS_FOR_WORK(3) -> state[3] = AWAKE
#endif
    :: else
    fi
}

/* A new worker of the pool's: any process that has not begun. */
inline spawn()
{
    if
    :: state[0] == UNBORN -> state[0] = AWAKE
    :: else ->
        if
        :: state[1] == UNBORN -> state[1] = AWAKE
#if WORKERS > 2
        :: else ->
            assert(state[2] == UNBORN);
            state[2] = AWAKE
#endif
        fi
    fi;
    threads++;
    idle++
}

inline dispatch()
{
    atomic
    {
        pending++;
        /* There is one waiting role; whoever gives it away had it. */
        assert(pending == 1 || poolShutDown);
        if
        :: poolShutDown
        :: else ->
            if
            :: idle >= pending -> notifyOne()
            :: idle < pending && threads < WORKERS -> spawn()
            :: else
            fi
        fi
    }
}

/* ---- The tables, registration lock held ---------------------------------- */

/* The record is no longer watched; no wait under way may serve it. */
inline forget(record)
{
    waitSet[0] = waitSet[0] & ~MASK(record);
    waitSet[1] = waitSet[1] & ~MASK(record);
#if WORKERS + JOINERS > 2
    waitSet[2] = waitSet[2] & ~MASK(record);
#endif
#if WORKERS + JOINERS > 3
    waitSet[3] = waitSet[3] & ~MASK(record);
#endif
}

inline removeRecord(record)
{
    registered[record] = false;
    forget(record)
}

/* The handler's removal flag: nothing of it is watched any more. */
inline setLeaving(handler)
{
    leaving[handler] = true;
    i = 0;
    do
    :: i < RECORDS ->
        if
        :: OWNER(i) == handler -> forget(i)
        :: else
        fi;
        i++
    :: else -> break
    od;
    i = 0
}

/* Whether nobody is inside a handler that asked to be removed. */
#ifdef M_DESTROY_AT_ONCE
#define MAY_DESTROY(handler) leaving[handler]
#elif defined(M_NO_PIN)
#define MAY_DESTROY(handler) (leaving[handler] && handlerCount[handler] == 0)
#else
#define MAY_DESTROY(handler) \
    (leaving[handler] && handlerCount[handler] == 0 && pins[handler] == 0)
#endif

/* Takes everything of a handler that may be destroyed out of the tables; the
 * caller destroys it when it has released the lock. */
inline removeHandler(handler)
{
    if
    :: MAY_DESTROY(handler) ->
        i = 0;
        do
        :: i < RECORDS ->
            if
            :: OWNER(i) == handler -> removeRecord(i)
            :: else
            fi;
            i++
        :: else -> break
        od;
        i = 0;
#ifdef TIMER
        if
        :: handler == TIMER_OWNER -> timerExists = false
        :: else
        fi;
#endif
        doomed = handler
    :: else
    fi
}

/* With no lock held: the destructor is foreign code. It closes what the
 * handler had. */
inline destroyDoomed()
{
    if
    :: doomed != NONE ->
        d_step
        {
            assert(!destroyed[doomed]);
            assert(inside[doomed] == 0);
            destroyed[doomed] = true;
            i = 0;
            do
            :: i < RECORDS ->
                if
                :: OWNER(i) == doomed && current[NUMBER(i)] == i ->
                    current[NUMBER(i)] = NONE
                :: else
                fi;
                i++
            :: else -> break
            od;
            i = 0;
            doomed = NONE
        }
    :: else
    fi
}

/* ---- Operations of handlers and the application -------------------------- */

inline register(record)
{
    SECTION
    {
        lock();
        d_step
        {
            registered[record] = true;
            isEnabled[record] = true;
            wanted[record] = true
        };
        interrupt();
        unlock()
    }
}

inline unregister(record)
{
    SECTION
    {
        lock();
        if
        :: registered[record] ->
            d_step { removeRecord(record) };
            interrupt()
        :: else
        fi;
        unlock()
    }
}

/* During the descriptor's own callback this only sets the flag. */
inline enableCallback(record)
{
    SECTION
    {
        lock();
        d_step
        {
            if
            :: registered[record] ->
                isEnabled[record] = true;
                wanted[record] = true
            :: else
            fi
        };
        interrupt();
        unlock()
    }
}

#ifdef TIMER
/* One whose callback runs is only marked: it is not there for the others. */
inline cancelTimer()
{
    SECTION
    {
        lock();
        if
        :: timerExists -> timerExists = false; interrupt()
        :: else
        fi;
        unlock()
    }
}
#endif

/* ---- A thread of the pool ------------------------------------------------ */

/* Watch set and time limit; the wait begins. */
inline buildSet()
{
    d_step
    {
        waitSet[me] = 0;
        numbers = 0;
        i = 0;
        do
        :: i < RECORDS ->
            if
            :: WATCHED(i) ->
                waitSet[me] = waitSet[me] | MASK(i);
                numbers = numbers | MASK(NUMBER(i))
            :: else
            fi;
            i++
        :: else -> break
        od;
        i = 0;
#ifdef TIMER
        timed = ARMED;
#endif
    }
}

#define HAS_DATA(number) \
    ((numbers & MASK(number)) && current[number] != NONE && \
     data[current[number]] > 0)
#if RECORDS > 1
#define ANY_DATA (HAS_DATA(0) || HAS_DATA(1))
#else
#define ANY_DATA HAS_DATA(0)
#endif

/* What select() leaves in the set. */
inline keepReady()
{
    i = 0;
    do
    :: i < RECORDS ->
        if
        :: HAS_DATA(i)
        :: else -> numbers = numbers & ~MASK(i)
        fi;
        i++
    :: else -> break
    od;
    i = 0
}

/* The record to serve: the first one of this wait that is ready. Handlers and
 * records are in the order of their registration. */
#ifdef M_BY_NUMBER
#define SERVABLE(record) \
    (registered[record] && (numbers & MASK(NUMBER(record))) && \
     !leaving[OWNER(record)])
#else
#define SERVABLE(record) \
    (registered[record] && (numbers & MASK(NUMBER(record))) && \
     (waitSet[me] & MASK(record)))
#endif

inline choose()
{
    d_step
    {
        mine = 0;
        do
        :: mine < RECORDS && !SERVABLE(mine) -> mine++
        :: mine == RECORDS -> mine = NONE; break
        :: else -> break
        od;
        waitSet[me] = 0;
        numbers = 0;
        if
        :: mine != NONE ->
#ifndef M_STAYS_ENABLED
            isEnabled[mine] = false;
            forget(mine);
            recordCount[mine]++;
#endif
            wanted[mine] = false;
            handlerCount[OWNER(mine)]++
        :: else
#ifdef EVERY_TURN_SERVES
            -> assert(false)
#endif
        fi
    }
}

inline enterCallback(handler)
{
    assert(!destroyed[handler]);
    inside[handler]++
}

inline leaveCallback(handler)
{
    assert(!destroyed[handler]);
    inside[handler]--
}

inline callBack()
{
    d_step
    {
        enterCallback(OWNER(mine));
        /* Nobody else serves it, and there is something to read. */
        assert(!insideRecord[mine]);
        insideRecord[mine] = true;
        assert(data[mine] > 0);
        data[mine]--;
        served[mine]++
    };
    callback(mine);
    d_step
    {
        insideRecord[mine] = false;
        leaveCallback(OWNER(mine))
    }
}

/* After a callback for a descriptor, the lock held. */
inline settle()
{
    d_step
    {
        assert(!destroyed[OWNER(mine)]);
#ifndef M_STAYS_ENABLED
        recordCount[mine]--;
#endif
        handlerCount[OWNER(mine)]--;
        if
        :: answer == REMOVE || leaving[OWNER(mine)] ->
            removeRecord(mine);
            i = 0;
            do
            :: i < RECORDS && !(OWNER(i) == OWNER(mine) && registered[i]) -> i++
            :: else -> break
            od;
            if
            :: i == RECORDS -> setLeaving(OWNER(mine))
            :: else
            fi;
            i = 0;
            removeHandler(OWNER(mine));
            wake = true
        :: !(answer == REMOVE || leaving[OWNER(mine)]) &&
            (answer == UNREGISTER || !registered[mine]) ->
            removeRecord(mine);
            wake = true
        :: else ->
            if
            :: handlerCount[OWNER(mine)] == 0 ->
                isEnabled[mine] = true;
                wanted[mine] = true;
#ifdef M_SILENT_ENABLE
                wake = false
#else
                wake = true
#endif
            :: else ->
                /* Stays disabled, unless it asked for itself meanwhile. */
#ifdef M_SILENT_LEAVE
                wake = false
#else
                wake = isEnabled[mine]
#endif
            fi
        fi;
        answer = CONTINUE;
        mine = NONE
    };
    interruptLoop()
}

#if !defined(M_DISPATCH_BEFORE_LOCK) && !defined(M_DISPATCH_WHEN_CHOSEN) && \
    !defined(M_DISPATCH_AFTER_CHOICE) && !defined(M_DISPATCH_AFTER_UNLOCK) && \
    !defined(M_DISPATCH_AFTER_CALLBACK)
#define DISPATCH_FIRST
#endif

inline serviceEvents()
{
#ifdef M_DISPATCH_BEFORE_LOCK
    dispatch();
#endif
    SECTION
    {
        lock();
#ifdef DISPATCH_FIRST
        dispatch();
#endif
        choose();
#ifdef M_DISPATCH_WHEN_CHOSEN
        if
        :: mine != NONE -> dispatch()
        :: else
        fi;
#endif
#ifdef M_DISPATCH_AFTER_CHOICE
        dispatch();
#endif
        unlock()
    };
#ifdef M_DISPATCH_AFTER_UNLOCK
    dispatch();
#endif
    if
    :: mine != NONE ->
        callBack();
        SECTION
        {
            lock();
            settle();
            unlock()
        };
        destroyDoomed()
    :: else
    fi;
#ifdef M_DISPATCH_AFTER_CALLBACK
    dispatch();
#endif
}

#ifdef TIMER
/* Calls each registered descriptor's handler with no lock held; a pin keeps
 * the handler meanwhile. */
inline refreshAll()
{
    mine = 0;
    do
    :: mine < RECORDS ->
        SECTION
        {
            lock();
            if
            :: registered[mine] && !leaving[OWNER(mine)] ->
                pins[OWNER(mine)]++;
                pinned = true
            :: else
            fi;
            unlock()
        };
        if
        :: pinned ->
            d_step { enterCallback(OWNER(mine)) };
            SECTION
            {
                leaveCallback(OWNER(mine));
                lock();
                d_step
                {
                    pinned = false;
                    pins[OWNER(mine)]--;
                    removeHandler(OWNER(mine))
                };
                unlock()
            };
            destroyDoomed()
        :: else
        fi;
        mine++
    :: else -> break
    od;
    mine = NONE
}

/* After a callback of the timer, the lock held. */
inline settleTimer()
{
    d_step
    {
        assert(!destroyed[TIMER_OWNER]);
        timerCount = false;
        handlerCount[TIMER_OWNER]--;
        wake = true;
        if
        :: answer == REMOVE -> setLeaving(TIMER_OWNER)
        :: else
        fi;
        if
        :: leaving[TIMER_OWNER] ->
            removeHandler(TIMER_OWNER);
            answer = CONTINUE
        :: else
        fi;
        if
        :: answer == UNREGISTER || !timerExists ->
            timerExists = false;
            answer = CONTINUE
        :: else
        fi
    }
}

/* If the timer is still there, which it need not be after a refresh. */
inline rearm()
{
    d_step
    {
        if
        :: timerExists && !leaving[TIMER_OWNER] ->
            due = false;
            timerEnabled = true
        :: else
        fi;
        answer = CONTINUE
    };
    interruptLoop()
}

inline serviceTimer()
{
    SECTION
    {
        lock();
        dispatch();
        d_step
        {
            numbers = 0;
            waitSet[me] = 0;
            if
            :: ARMED && due ->
                found = true;
                timerEnabled = false;
                timerCount = true;
                handlerCount[TIMER_OWNER]++
            :: else
            fi
        };
        unlock()
    };
    if
    :: found ->
        found = false;
        d_step { enterCallback(TIMER_OWNER) };
        tick();
        d_step { leaveCallback(TIMER_OWNER) };
        SECTION
        {
            lock();
            settleTimer();
            if
            :: answer == REFRESH
            :: else -> rearm()
            fi;
            unlock()
        };
        destroyDoomed();
        if
        :: answer == REFRESH ->
            refreshAll();
            SECTION
            {
                lock();
                rearm();
                unlock()
            }
        :: else
        fi
    :: else
    fi
}
#endif

proctype Thread(byte me)
{
    byte numbers;        /* what select() watches, then what it found ready */
    byte mine = NONE;
    byte answer;
    byte doomed = NONE;
    byte i;
    bool wake;
#ifdef TIMER
    bool timed;          /* the wait has a time limit */
    bool found;
    bool pinned;
#endif

    if
    :: me >= WORKERS -> goto joinPool
    :: else
    fi;

unborn:
    /* The pool starts it. */
end_unborn:
    state[me] == AWAKE;

waitForRun:
    /* Under the pool's lock. */
    atomic
    {
        if
        :: poolShutDown -> exited++; goto leave
        :: !poolShutDown && pending > 0 -> pending--; idle--; goto job
        :: !poolShutDown && pending == 0 -> state[me] = ASLEEP
        fi
    };
asleep:
end_asleep:
    if
    :: atomic { state[me] == AWAKE -> goto waitForRun }
    :: atomic { me < WORKERS && retirements > 0 && state[me] == ASLEEP ->
            retirements--; state[me] = TIMED_OUT }
    fi;
    /* The lock is taken again: a run may have come meanwhile. */
    atomic
    {
        if
        :: poolShutDown || pending > 0 -> state[me] = AWAKE; goto waitForRun
        :: !poolShutDown && pending == 0 && threads > MINIMUM && idle > 1 ->
            idle--; threads--; state[me] = UNBORN; goto unborn
        :: else -> state[me] = ASLEEP; goto asleep
        fi
    };

job:
    SECTION
    {
        lock();
        if
        :: stopping -> unlock(); goto ran
        :: else
        fi;
        buildSet();
        unlock();
        waiters++;
        assert(waiters == 1)
    };
end_select:
    /* select(); a timer that is due may come before what is ready. After a
     * shutdown that timed out it may find the pair closed: back to the flag. */
    if
#ifdef TIMER
    :: atomic { timed && due -> waiters--; timed = false }
        serviceTimer();
        goto ran
#endif
    :: d_step { bytes > 0 || closed -> waiters--; numbers = 0; waitSet[me] = 0
#ifdef TIMER
        ; timed = false
#endif
        }
        atomic
        {
            if
#ifdef M_CLOSED_PAIR_FAILS
            :: closed -> assert(!closed)
#else
            :: closed
#endif
#ifdef M_UNDRAINED
            :: !closed && bytes > 0
#else
            :: !closed && bytes > 0 -> bytes--
#endif
            fi
        };
        goto job
    :: d_step { bytes == 0 && ANY_DATA -> waiters--; keepReady()
#ifdef TIMER
        ; timed = false
#endif
        }
        serviceEvents()
    fi;

ran:
    atomic { idle++; goto waitForRun };

joinPool:
    atomic
    {
        if
        :: poolShutDown -> goto gone
        :: !poolShutDown && threads < WORKERS ->
            callers++; threads++; idle++; state[me] = AWAKE;
            goto waitForRun
        :: else -> callers++; state[me] = SURPLUS
        fi
    };
surplus:
end_surplus:
    atomic
    {
        state[me] == AWAKE;
        if
        :: poolShutDown -> goto leave
        :: else -> state[me] = SURPLUS; goto surplus
        fi
    };

leave:
    atomic
    {
        if
        :: me >= WORKERS -> callers--
        :: else
        fi
    };
gone:
    skip
}

/* ---- Surroundings -------------------------------------------------------- */

/* Peers that send, and the clock. */
proctype World()
{
end_world:
    do
    :: atomic { toCome[0] > 0 -> toCome[0]--; data[0]++ }
#if RECORDS > 1
    :: atomic { toCome[1] > 0 -> toCome[1]--; data[1]++ }
#endif
#if RECORDS > 2
    :: atomic { toCome[2] > 0 -> toCome[2]--; data[2]++ }
#endif
#ifdef TIMER
    :: atomic { ticks > 0 && !due -> ticks--; due = true }
#endif
    od
}

#ifdef APPLICATION
proctype Application()
{
end_application:
    application()
}
#endif

/* Sends the shutdown event; the answer may be to remove the handler, which
 * goes when all its descriptors and timers have heard. */
inline tellHandler(handler, present)
{
    SECTION
    {
        lock();
        if
        :: present && (!leaving[handler] ||
            (handlerCount[handler] == 0 && pins[handler] == 0)) ->
            tell = true;
#ifndef M_UNCOUNTED_TEARDOWN
            handlerCount[handler]++
#endif
        :: else
        fi;
        unlock()
    };
    if
    :: tell ->
        tell = false;
        d_step { enterCallback(handler) };
        SECTION
        {
            leaveCallback(handler);
            lock();
#ifndef M_UNCOUNTED_TEARDOWN
            handlerCount[handler]--;
#endif
            if
            :: skip
            :: d_step { setLeaving(handler) }
            fi;
            d_step
            {
                do
                :: i < RECORDS && !(OWNER(i) == handler &&
                    (registered[i] || recordCount[i] > 0)) -> i++
                :: else -> break
                od;
                if
                :: i == RECORDS && !OWNS_TIMER(handler) ->
                    i = 0;
                    removeHandler(handler)
                :: else -> i = 0
                fi
            };
            unlock()
        };
        destroyDoomed()
    :: else
    fi
}

/* Shutdown() and Finish(). */
proctype Stopper()
{
    byte record;
    byte doomed = NONE;
    byte i;
    bool tell;

#ifndef SHUT_DOWN_AT_ANY_TIME
end_stopper:
    mayStop;
#endif
    stopping = true;
    interrupt();
    atomic
    {
        poolShutDown = true;
        i = 0;
        do
        :: i < THREADS ->
            if
            :: state[i] == ASLEEP || state[i] == TIMED_OUT ||
                state[i] == SURPLUS -> state[i] = AWAKE
            :: else
            fi;
            i++
        :: else -> break
        od;
        i = 0
    };
    if
    :: exited >= threads && callers == 0
#ifdef TIME_OUT
    :: skip
#endif
    fi;
    /* Every descriptor and timer hears of it, with no lock held; the counts
     * keep its handler from a callback that ends meanwhile. A handler that
     * asked to be removed is left to the thread that is inside it. */
    do
    :: record < RECORDS ->
        tellHandler(OWNER(record), registered[record]);
        record++
    :: else -> record = 0; break
    od;
#ifdef TIMER
    tellHandler(TIMER_OWNER, timerExists);
#endif
    do
    :: record < RECORDS ->
        SECTION
        {
            lock();
            if
            :: registered[record] || recordCount[record] > 0 ->
                d_step
                {
                    removeHandler(OWNER(record));
                    removeRecord(record)
                }
            :: else
            fi;
            unlock()
        };
        destroyDoomed();
        record++
    :: else -> record = 0; break
    od;
#ifdef TIMER
    SECTION
    {
        lock();
        if
        :: timerExists ->
            d_step { removeHandler(TIMER_OWNER); timerExists = false }
        :: else
        fi;
        unlock()
    };
    destroyDoomed();
#endif
    closed = true;
    stopped = true
}

/* ---- Checks -------------------------------------------------------------- */

/* Reached when nothing can move any more, before and after the shutdown. That
 * it is reached at all is checked as well: the model has no cycle. */
proctype Monitor()
{
    byte i;
    byte count;

#ifndef SHUT_DOWN_AT_ANY_TIME
end_running:
    timeout;
    d_step
    {
        /* One thread waits, all others of the pool are at its disposal. */
        assert(waiters == 1 && pending == 0 && bytes == 0 && !locked);
        assert(idle == threads - 1);
        i = 0;
        do
        :: i < THREADS ->
            if
            :: state[i] == ASLEEP -> count++
            :: else
            fi;
            i++
        :: else -> break
        od;
        assert(count == idle);
        count = 0;
        /* No descriptor that has to be served has data. */
        i = 0;
        do
        :: i < RECORDS ->
            assert(!(wanted[i] && registered[i] && !leaving[OWNER(i)] &&
                     data[i] > 0));
            i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < HANDLERS ->
            assert(inside[i] == 0 && handlerCount[i] == 0);
            assert(leaving[i] == destroyed[i]);
            i++
        :: else -> break
        od;
        i = 0;
#ifdef TIMER
        assert(!(timerExists && due));
#endif
        mayStop = true
    };
#endif
end_stopped:
    timeout;
    d_step
    {
        assert(stopped && waiters == 0 && exited == threads && callers == 0);
        assert(!locked);
        i = 0;
        do
        :: i < HANDLERS ->
            assert(inside[i] == 0 && handlerCount[i] == 0);
            assert(leaving[i] == destroyed[i]);
            i++
        :: else -> break
        od;
        i = 0
    }
}

init
{
    byte record;
    byte me;

    atomic
    {
        do
        :: record < RECORDS ->
            registered[record] = AT_START(record);
            isEnabled[record] = AT_START(record);
            wanted[record] = AT_START(record);
#ifdef SENT_BEFORE
            data[record] = MESSAGES;
#else
            toCome[record] = MESSAGES;
#endif
            if
            :: AT_START(record) -> current[NUMBER(record)] = record
            :: else -> skip
            fi;
            if
            :: NUMBER(record) != record -> current[record] = NONE
            :: else -> skip
            fi;
            record++
        :: else -> record = 0; break
        od;
        do
        :: me < THREADS ->
            state[me] = (me < MINIMUM -> AWAKE : UNBORN);
            run Thread(me);
            me++
        :: else -> me = 0; break
        od;
        threads = MINIMUM;
        idle = MINIMUM;
        pending = 1;
        run World();
#ifdef APPLICATION
        run Application();
#endif
        run Stopper();
        run Monitor()
    }
}
