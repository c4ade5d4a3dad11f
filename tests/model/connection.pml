/* SPDX-License-Identifier: Apache-2.0 */
/* Two mailboxes of different processes that may locate each other, at the same time too: connect, greet,
   send, end and crash, in every order of their steps. The table of states in docs/architecture.md has the
   names. A step is what happens under a mailbox's lock, or between two calls of the system.

   Where nothing more can happen, nobody waits, all that was sent has been received, at most one connection
   is left, both sides have it, and each end that is no longer used is closed. One case stays: two mailboxes
   that were deleted with a backlog for each other keep it until one of the processes ends.

   With -DFAULT=BOTH or AHEAD the model has a fault, which scripts/check-connections must find. */
#define NONE 0
#define BOTH 1  /* of two that cross, each side keeps its own */
#define AHEAD 2 /* the notice comes before what is unread */
#define CALLS 3 /* connections at a time; a mailbox waits for a free one */
#define ROOM 1  /* signals in a ring; the others wait in the backlog */
#define far (1 - near)
#define its calls[i]

mtype = {none, welcome, known, refused};
typedef call {
    byte maker;
    bool hello;      /* sent, and not yet taken by the other side's helper */
    mtype answer = none;
    bool fd[2];      /* the end of the control connection is open */
    bool open[2];    /* the mailbox has a connection */
    bool source[2];  /* its owner may have something to receive */
    bool located[2]; /* its end will be reported */
    byte waiting[2]; /* in the backlog */
    byte unread[2];  /* in the ring */
};
call calls[CALLS];
bool crashed[2], deleted[2], receives[2];
byte chosen[2] = CALLS; /* the answer of mbx_locate */
bool hasty;             /* the deadline of mbx_locate may pass */
hidden byte found;      /* within one step */

#define is_free(n) (!calls[n].fd[0] && !calls[n].fd[1] && !calls[n].source[0] && !calls[n].source[1])
#define is_gone(m) (crashed[m] || deleted[m])

inline find_peer() {
    if :: calls[0].open[near] -> found = 0 :: calls[1].open[near] -> found = 1
    :: calls[2].open[near] -> found = 2 :: else -> found = CALLS fi
}
inline add() { its.open[near] = true; its.source[near] = true }
/* What is all closed is forgotten, which spares the check states that differ in nothing. */
inline clear() {
    if
    :: is_free(i) -> its.maker = 0; its.hello = false; its.answer = none; its.located[0] = false; its.located[1] = false;
        its.unread[0] = 0; its.unread[1] = 0; its.waiting[0] = 0; its.waiting[1] = 0
    :: else
    fi
}
inline close_fd() { its.fd[near] = false; clear() }
inline end_connection() {
    assert(its.waiting[near] == 0 || crashed[near] || is_gone(far) || hasty);
    its.open[near] = false; its.waiting[near] = 0;
    its.source[near] = its.source[near] && (its.located[near] || its.unread[near] > 0);
    close_fd()
}

proctype owner(bit near) {
    byte i = CALLS, n; {
        if :: goto sending :: skip fi;
attempt:
        atomic {
            if
            :: is_gone(far) || hasty -> i = CALLS; goto sending
            :: is_free(0) -> i = 0
            :: !is_free(0) && is_free(1) -> i = 1
            :: !is_free(0) && !is_free(1) && is_free(2) -> i = 2 fi;
            its.maker = near; its.fd[near] = true; its.fd[far] = !is_gone(far)
        }
        its.hello = true;
        if :: its.answer != none :: !its.fd[far] :: hasty fi;
        atomic { /* settle() */
            find_peer();
            if
            :: found < CALLS && (its.answer == known || (its.answer == welcome && far < near && FAULT != BOTH)) ->
                chosen[near] = found; calls[found].located[near] = true
            :: else -> if :: its.answer == welcome -> add(); chosen[near] = i; its.located[near] = true :: else fi
            fi
        }
        atomic { if :: chosen[near] != i -> assert(its.unread[near] + its.waiting[far] == 0 || hasty); close_fd()
                 :: else -> its.answer = none fi }
        if :: chosen[near] == CALLS -> goto attempt :: else -> i = chosen[near] fi;
sending:
        for (n : 1 .. 2) {
            atomic { if
                :: i < CALLS && its.open[near] && its.unread[far] < ROOM && its.waiting[near] == 0 -> its.unread[far]++
                :: i < CALLS && its.open[near] && !(its.unread[far] < ROOM && its.waiting[near] == 0) -> its.waiting[near]++
                :: else
                fi }
        }
        if
        :: atomic { receives[near] = true; i = 0 }
        :: atomic { /* mbx_delete_mailbox: a backlog stays until it is handed on */
            deleted[near] = true;
            for (i : 0 .. CALLS - 1) {
                its.source[near] = false;
                if :: its.open[near] && its.waiting[near] == 0 -> end_connection() :: else -> clear() fi
            } }
        fi
    } unless { crashed[near] }
}

/* What the helper and the owner do with one connection. */
proctype side(bit near; byte i) {
    { end_idle:
        do
        :: atomic { its.maker == far && its.hello && its.fd[near] -> /* answer() */
            its.hello = false;
            find_peer();
            if
            :: deleted[near] -> close_fd()
            :: !deleted[near] && found < CALLS -> its.answer = known; close_fd()
            :: !deleted[near] && found == CALLS -> its.answer = refused; close_fd()
            :: !deleted[near] && found == CALLS -> add(); its.answer = welcome
            fi }
        :: atomic { its.maker == far && its.fd[near] && !its.open[near] && !its.hello && !its.fd[far] ->
            close_fd() } /* hung up without a greeting */
        :: atomic { its.open[near] && !its.fd[far] -> end_connection() }
        :: atomic { its.open[near] && its.waiting[near] > 0 && its.unread[far] < ROOM -> /* flush() */
            its.waiting[near]--; its.unread[far]++;
            if :: deleted[near] && its.waiting[near] == 0 -> end_connection() :: else fi }
        :: atomic { receives[near] && its.source[near] && its.unread[near] > 0 -> its.unread[near]-- }
        :: atomic { receives[near] && its.source[near] && !its.open[near] &&
                    (its.unread[near] == 0 || FAULT == AHEAD) -> /* the notice */
            assert(its.unread[near] == 0);
            its.source[near] = false;
            if :: its.located[near] && chosen[near] == i -> chosen[near] = CALLS :: else fi;
            close_fd() }
        od
    } unless { crashed[near] }
}

proctype crash(bit near) {
    byte i;
    atomic {
        crashed[near] = true; receives[near] = false;
        for (i : 0 .. CALLS - 1) { its.source[near] = false; end_connection() }
    }
}

init {
    byte i, near, held;
    atomic {
        if :: hasty = true :: skip fi;
        for (near : 0 .. 1) {
            run owner(near);
            for (i : 0 .. CALLS - 1) { run side(near, i) }
        }
        if :: run crash(0) :: run crash(1) :: skip fi
    }
    timeout; /* nothing more can happen */
    d_step {
        for (near : 0 .. 1) {
            assert(is_gone(near) || receives[near]);
            held = 0;
            for (i : 0 .. CALLS - 1) {
                assert(its.fd[near] == its.open[near] && its.open[near] == its.open[far]);
                assert(!its.open[near] || its.unread[near] == 0 || (deleted[0] && deleted[1]));
                held = held + its.open[near]
            }
            assert(held <= 1 && (!receives[near] || chosen[near] == CALLS || calls[chosen[near]].open[near]))
        }
    }
}
