/*
 * The scenarios of handOver.pml: which descriptors, handlers and callbacks
 * there are, and what else happens.
 */

/* Defaults: each descriptor has a number and a handler of its own, two threads
 * beside the waiting one, all descriptors registered at the beginning. */
#define NUMBER(record) record
#define OWNER(record) record
#define AT_START(record) true
#define MESSAGES 2
#define WORKERS 3   /* the pool's maximum */
#define MINIMUM 1   /* what the pool starts with */
#define JOINERS 0   /* callers of ProcessEvents() */
#define CAPACITY 2  /* bytes that the socket pair holds */

#if defined(S_SERVE)
/* Two handlers that carry on. Nobody else changes the table, so a thread that
 * found something ready serves something. */
#define RECORDS 2
#define HANDLERS 2
#define EVERY_TURN_SERVES
inline callback(record) { answer = CONTINUE }

#elif defined(S_WAIT_FOR_OTHER)
/* The callback of the first descriptor lasts until the other one has been
 * served; two threads are all there are. */
#define RECORDS 2
#define HANDLERS 2
#undef WORKERS
#define WORKERS 2
inline callback(record)
{
    if
    :: record == 0 -> served[1] > 0
    :: else
    fi;
    answer = CONTINUE
}

#elif defined(S_REMOVE)
/* Two handlers, every answer. */
#define RECORDS 2
#define HANDLERS 2
inline callback(record) { anyAnswer() }

#elif defined(S_TWO_DESCRIPTORS)
/* One handler with two descriptors, every answer; some callbacks ask for
 * their own descriptor before they end. */
#define RECORDS 2
#define HANDLERS 1
#undef OWNER
#define OWNER(record) 0
inline callback(record)
{
    if
    :: skip
    :: enableCallback(record)
    fi;
    anyAnswer()
}

#elif defined(S_ASK_FOR_MORE)
/* One handler: the callback of the second descriptor lasts until both messages
 * of the first one were served, which asks for its own descriptor each time. */
#define RECORDS 2
#define HANDLERS 1
#undef OWNER
#define OWNER(record) 0
inline callback(record)
{
    if
    :: record == 0 -> enableCallback(0)
    :: else -> served[0] == MESSAGES
    fi;
    answer = CONTINUE
}

#elif defined(S_ASK_LATER)
/* One handler busy on two threads; a thread of the application's asks for both
 * descriptors in the end, or a callback for the other one. */
#define RECORDS 2
#define HANDLERS 1
#undef OWNER
#define OWNER(record) 0
inline callback(record)
{
    if
    :: skip
    :: enableCallback(1 - record)
    fi;
    answer = CONTINUE
}
#define APPLICATION
inline application()
{
    served[0] + served[1] > 0;
    enableCallback(0);
    enableCallback(1)
}

#elif defined(S_UNREGISTER)
/* The application unregisters and closes a descriptor while it is served; its
 * number comes back for another handler. Callbacks unregister themselves. */
#define RECORDS 3
#define HANDLERS 3
#undef MESSAGES
#define MESSAGES 1
#undef NUMBER
#define NUMBER(record) (record & 1)
#undef AT_START
#define AT_START(record) (record < 2)
inline callback(record)
{
    if
    :: skip
    :: record == 1 -> unregister(record)
    fi;
    if
    :: answer = CONTINUE
    :: record == 1 -> answer = REMOVE
    fi
}
#define APPLICATION
inline application()
{
    unregister(0);
    current[0] = NONE;
    current[0] = 2;
    register(2)
}

#elif defined(S_UNREGISTER_OTHER)
/* One handler whose callbacks unregister the other descriptor, every answer. */
#define RECORDS 2
#define HANDLERS 1
#undef OWNER
#define OWNER(record) 0
#undef MESSAGES
#define MESSAGES 1
inline callback(record)
{
    if
    :: skip
    :: unregister(1 - record)
    fi;
    anyAnswer()
}

#elif defined(S_TIMER)
/* A timer and a descriptor of one handler; another one cancels the timer. */
#define RECORDS 2
#define HANDLERS 2
#undef MESSAGES
#define MESSAGES 1
#define TIMER
#define TICKS 2
inline callback(record)
{
    if
    :: record == 0 -> anyAnswer()
    :: else -> cancelTimer(); answer = CONTINUE
    fi
}
inline tick() { anyAnswer() }

#elif defined(S_BUSY_TIMER)
/* The timer's callback lasts until its handler's descriptor has been served
 * twice, which therefore asks for itself. */
#define RECORDS 1
#define HANDLERS 1
#define TIMER
#define TICKS 2
inline callback(record)
{
    enableCallback(record);
    answer = CONTINUE
}
inline tick()
{
    served[0] == MESSAGES;
    answer = CONTINUE
}

#elif defined(S_REFRESH)
/* The timer refreshes all handlers while they ask to be removed. */
#define RECORDS 2
#define HANDLERS 2
#undef MESSAGES
#define MESSAGES 1
#define TIMER
#define TICKS 1
inline callback(record) { anyAnswer() }
inline tick() { answer = REFRESH }

#elif defined(S_POOL)
/* More callers of ProcessEvents() than the pool has room for; a spare worker
 * may retire. The callback of the first descriptor lasts until the other one
 * has been served. */
#define RECORDS 2
#define HANDLERS 2
#undef MESSAGES
#define MESSAGES 1
#undef WORKERS
#define WORKERS 2
#undef JOINERS
#define JOINERS 2
#define RETIREMENTS 1
inline callback(record)
{
    if
    :: record == 0 -> served[1] > 0
    :: else
    fi;
    answer = CONTINUE
}

#elif defined(S_SHUT_DOWN)
/* A shutdown at any moment, a caller of ProcessEvents() among the threads;
 * every answer. */
#define RECORDS 2
#define HANDLERS 2
#undef WORKERS
#define WORKERS 2
#undef JOINERS
#define JOINERS 1
#undef MESSAGES
#define MESSAGES 1
#define SHUT_DOWN_AT_ANY_TIME
inline callback(record) { anyAnswer() }

#elif defined(S_STRAGGLERS)
/* A shutdown at any moment whose wait for the threads may time out: callbacks
 * for both descriptors of a handler still run while the engine is torn down. */
#define RECORDS 2
#define HANDLERS 1
#undef OWNER
#define OWNER(record) 0
#undef MESSAGES
#define MESSAGES 1
#define SHUT_DOWN_AT_ANY_TIME
#define TIME_OUT
#define SENT_BEFORE
inline callback(record) { anyAnswer() }

#elif defined(S_TIMER_STRAGGLERS)
/* The same for a descriptor and a timer of one handler. */
#define RECORDS 1
#define HANDLERS 1
#undef WORKERS
#define WORKERS 2
#undef MESSAGES
#define MESSAGES 1
#define TIMER
#define TICKS 1
#define SHUT_DOWN_AT_ANY_TIME
#define TIME_OUT
#define SENT_BEFORE
inline callback(record) { anyAnswer() }
inline tick() { anyAnswer() }

#else
#error no scenario
#endif
