/*
 * Coherence: clients that cache a variable, and a service that is killed, restarted with other
 * definitions, and cut off from them. Whatever happens in whatever order: once it is quiet, a
 * client's cache is empty or holds the service's value; and what a thread of a client has read or
 * written is never followed, in any of its threads, by an older value.
 *
 * README.md tells which code each step stands for; scripts/model checks it. A value is a number that
 * is never used twice, so that an old one is recognised. A second variable, which nobody caches here,
 * shares revisions and delivery connections with the first.
 */

#ifndef CLIENTS
#define CLIENTS 2
#endif
#ifndef WRITERS
#define WRITERS 1        /* whether client 0 has a second thread, which writes */
#endif
#ifndef CALLS
#define CALLS 1          /* of each thread */
#endif
#ifndef COMMITS
#define COMMITS 1        /* of the variable by somebody else */
#endif
#ifndef OTHERS
#define OTHERS 0         /* commits of the other variable */
#endif
#ifndef KILLS
#define KILLS 1          /* of the service, each followed by a restart */
#endif
#ifndef EPOCHS
#define EPOCHS 0         /* restarts that bring another default */
#endif
#ifndef CUTS
#define CUTS 0           /* of client 0's delivery connection */
#endif
#ifndef REMOVALS
#define REMOVALS 0       /* how often client 0 forgets what it has cached */
#endif
#ifndef LOSSES
#define LOSSES 1         /* requests whose connection dies before, or after, they are taken */
#endif

#define ROOM 2           /* frames that a socket holds */
#define NOTHING 0        /* no value cached */
#define FROM_NOTHING 255 /* the revision of who knows nothing */

mtype = { acknowledgement, notice, otherNotice };

/* --- The service --- */
bool up = true;
byte epoch = 1;
byte value = 1;
byte revision = 1;       /* of the store */
byte changedAt = 0;      /* the variable's last commit */

/* For each client: its registrations, and its delivery connection as the service sees it. */
bool registered[CLIENTS];
bool registeredOther[CLIENTS];
bool reachable[CLIENTS];
bool waits[CLIENTS];     /* a notice that found no room; the newest alone is kept */

/* --- What the service wrote and the client has not read --- */
typedef Wire { chan frames = [ROOM] of { mtype, byte, byte, byte } };
Wire wire[CLIENTS];

/* --- A client --- */
byte cached[CLIENTS];
byte stampEpoch[CLIENTS];    /* how new what is cached is, or what was removed was; 0: not known */
byte stampAt[CLIENTS];
/* How new the newest is that any of its threads has read or written. For the proof alone. */
byte seenEpoch[CLIENTS];
byte seenAt[CLIENTS];
bool hasHandler[CLIENTS];
bool connected[CLIENTS];
bool toRepeat[CLIENTS];      /* the registration is on its way over the delivery connection */
bool toRepeatOther[CLIENTS];
bool toAnswer[CLIENTS];      /* the service has taken that, and answers once what it owes is queued */
byte repeatWith[CLIENTS];
/* The registration as it is kept. */
bool kept[CLIENTS];
byte since[CLIENTS];
byte sinceEpoch[CLIENTS];
bool acknowledged[CLIENTS];
byte acknowledgedAt[CLIENTS];
byte unanswered[CLIENTS];
byte keptEpoch[CLIENTS];
bool otherEpochAnswered[CLIENTS];
byte connection[CLIENTS];    /* counts delivery connections */
byte delivered[CLIENTS];     /* the newest revision of a notice; 0: none */

#ifdef WITHOUT_STAMPS
/* --- Requests on their way: 0 and 1 of client 0, 2 of client 1 --- */
bool open[3];
bool overtaken[3];
bool contested[3];
#endif

byte running = 0;
byte lossesLeft = LOSSES;

/* A notice of the variable leaves, or waits with the newest state. */
inline tell(c) {
  if
  :: reachable[c] && (waits[c] || len(wire[c].frames) == ROOM) -> waits[c] = true
  :: reachable[c] && !waits[c] && len(wire[c].frames) < ROOM ->
       wire[c].frames!notice(value, revision, changedAt)
  :: !reachable[c] -> skip
  fi
}

inline tellIfMissed(c, knows) {
  if
  :: knows == FROM_NOTHING || changedAt > knows -> tell(c)
  :: !(knows == FROM_NOTHING || changedAt > knows) -> skip
  fi
}

inline tellEverybody() {
  if :: registered[0] -> tell(0) :: !registered[0] -> skip fi
#if CLIENTS > 1
  ; if :: registered[1] -> tell(1) :: !registered[1] -> skip fi
#endif
}

inline commit() {
  value++; revision++; changedAt = revision;
  tellEverybody()
}

#define KNOWN(c) (acknowledged[c] && delivered[c] > acknowledgedAt[c] -> delivered[c] : since[c])
#define LESSER(a, b) (a == FROM_NOTHING || b == FROM_NOTHING -> FROM_NOTHING : (a < b -> a : b))

inline keep(c) {
  counted = connection[c];
  if :: keptEpoch[c] != 0 && ofEpoch != keptEpoch[c] -> atRevision = FROM_NOTHING :: else -> skip fi;
  if
  :: !kept[c] -> since[c] = atRevision
  :: kept[c] && sinceEpoch[c] == ofEpoch -> since[c] = LESSER(KNOWN(c), atRevision)
  :: kept[c] && sinceEpoch[c] != ofEpoch -> since[c] = FROM_NOTHING
  fi;
  kept[c] = true; sinceEpoch[c] = ofEpoch; acknowledged[c] = false; unanswered[c]++
}

inline answeredOne(c, during) {
  if :: during == connection[c] && unanswered[c] > 0 -> unanswered[c]-- :: else -> skip fi
}

inline acknowledge(c, during, anEpoch, aRevision) {
  answeredOne(c, during);
  if
  :: during == connection[c] && (keptEpoch[c] == 0 || anEpoch == keptEpoch[c]) ->
       if :: aRevision > acknowledgedAt[c] -> acknowledgedAt[c] = aRevision :: else -> skip fi;
       acknowledged[c] = (unanswered[c] == 0)
  :: else -> skip
  fi
}

/* Sent again over the delivery connection with what is known. */
inline repeat(c) {
  acknowledged[c] = false; acknowledgedAt[c] = 0; unanswered[c] = 1; sinceEpoch[c] = keptEpoch[c];
  repeatWith[c] = since[c]; toRepeat[c] = true
}

#define OLDER(e, at, than_e, than_at) ((e) < (than_e) || ((e) == (than_e) && (at) < (than_at)))

/* A thread has read this, or has written it and was told so. */
inline see(c, e, at) {
  if
  :: OLDER(seenEpoch[c], seenAt[c], e, at) -> seenEpoch[c] = e; seenAt[c] = at
  :: else -> skip
  fi
}

inline begin(me) {
#ifdef WITHOUT_STAMPS
  open[me] = true; overtaken[me] = false; contested[me] = false
#else
  skip
#endif
}

inline giveUp(me) {
#ifdef WITHOUT_STAMPS
  open[me] = false
#else
  skip
#endif
}

#ifndef WITHOUT_STAMPS
/* The value of an answer goes into the cache, unless that holds, or held, something newer. */
inline land(c, me) {
  if
#ifndef OLDER_ANSWERS_ARE_STORED
  :: OLDER(ofEpoch, answerAt, stampEpoch[c], stampAt[c]) -> skip
#endif
  :: ofEpoch == stampEpoch[c] && answerAt == stampAt[c] ->
       if :: cached[c] == NOTHING -> cached[c] = answer :: else -> skip fi
  :: else -> cached[c] = answer; stampEpoch[c] = ofEpoch; stampAt[c] = answerAt
  fi
}
#else
/* The value of an answer goes into the cache, unless a notice or another answer forbids it. What a
   notice brought during a write may be what the write replaced: neither stays. */
inline land(c, me) {
  if
  :: !overtaken[me] ->
       if :: c == 0 && open[1 - me] -> contested[1 - me] = true :: else -> skip fi;
       if
       :: !contested[me] -> cached[c] = answer
       :: contested[me] && cached[c] != NOTHING && cached[c] != answer -> cached[c] = NOTHING
       :: else -> skip
       fi
  :: overtaken[me] && writes && cached[c] != NOTHING && cached[c] != answer -> cached[c] = NOTHING
  :: else -> skip
  fi;
  open[me] = false
}
#endif

/* A thread of an application: it reads, or writes and waits for the answer. */
proctype Application(byte c; byte me; bool writes) {
  byte calls = CALLS;
  byte answer, answerAt, atRevision, ofEpoch, counted, knows, ackRevision, ackEpoch;
  byte sinceEpochSeen, sinceSeen;
  byte removals = (me == 0 -> REMOVALS : 0);
  bool ok, wasRegistered;
  do
  :: d_step {
       calls > 0 && (writes || cached[c] == NOTHING) ->
       calls--; ok = false; wasRegistered = hasHandler[c];
       begin(me);
       sinceEpochSeen = seenEpoch[c]; sinceSeen = seenAt[c]
     };
     /* The request. */
     if
     :: atomic {
          up && writes ->
          commit(); answer = value; answerAt = changedAt; atRevision = revision; ofEpoch = epoch; ok = true
        }
     :: d_step {
          up && !writes ->
          answer = value; answerAt = changedAt; atRevision = revision; ofEpoch = epoch; ok = true
        }
     :: atomic { up && writes && lossesLeft > 0 -> lossesLeft--; commit() }
     :: d_step { up && lossesLeft > 0 -> lossesLeft-- }
     :: !up -> skip
     fi;
     d_step {
       if :: ok && keptEpoch[c] != 0 && ofEpoch != keptEpoch[c] -> otherEpochAnswered[c] = true
          :: else -> skip
       fi
     };
     /* What is asked for is never older than what was read before. */
     d_step {
       if :: ok -> assert(!OLDER(ofEpoch, answerAt, sinceEpochSeen, sinceSeen)) :: else -> skip fi
     };
     if
     :: ok && !wasRegistered ->
          d_step { keep(c); ok = false };
          /* The registration. */
          if
          :: atomic {
               up ->
               registered[c] = true;
               knows = (epoch == ofEpoch -> atRevision : FROM_NOTHING);
               tellIfMissed(c, knows);
               ackRevision = revision; ackEpoch = epoch; ok = true
             }
          :: atomic {
               up && lossesLeft > 0 ->
               lossesLeft--; registered[c] = true;
               knows = (epoch == ofEpoch -> atRevision : FROM_NOTHING);
               tellIfMissed(c, knows)
             }
          :: d_step { up && lossesLeft > 0 -> lossesLeft-- }
          :: !up -> skip
          fi;
          d_step {
            if
            :: ok -> acknowledge(c, counted, ackEpoch, ackRevision)
            :: !ok ->
                 answeredOne(c, counted);
                 /* Nobody else would ask again on a connection that stays. */
#ifndef FORGETS_LOST_ANSWERS
                 if
                 :: connected[c] && !acknowledged[c] && unanswered[c] == 0 -> repeat(c)
                 :: else -> skip
                 fi
#else
                 skip
#endif
            fi;
            hasHandler[c] = true
          };
          d_step { land(c, me); see(c, ofEpoch, answerAt) }
     :: ok && wasRegistered -> d_step { land(c, me); see(c, ofEpoch, answerAt) }
     :: !ok -> giveUp(me)
     fi;
     d_step { answer = 0; answerAt = 0; sinceEpochSeen = 0; sinceSeen = 0; atRevision = 0; ofEpoch = 0; counted = 0; knows = 0; ackRevision = 0; ackEpoch = 0 }
  /* The cache answers. */
  :: d_step {
       calls > 0 && !writes && cached[c] != NOTHING ->
       calls--;
#ifndef WITHOUT_STAMPS
       assert(!OLDER(stampEpoch[c], stampAt[c], seenEpoch[c], seenAt[c]));
       see(c, stampEpoch[c], stampAt[c])
#endif
     }
  :: d_step { removals > 0 && cached[c] != NOTHING -> removals--; cached[c] = NOTHING }
  :: calls == 0 -> break
  od;
  running--
}

/* The delivery thread, and the service's end of its connection. */
proctype Delivery(byte c) {
  byte v, r, at;
end:
  do
  :: d_step {
       !connected[c] && up ->
       connected[c] = true; reachable[c] = true; waits[c] = false;
       if
       :: kept[c] && !otherEpochAnswered[c] && (keptEpoch[c] == 0 || keptEpoch[c] == epoch) &&
          sinceEpoch[c] == epoch -> since[c] = KNOWN(c)
       :: else -> since[c] = FROM_NOTHING
       fi;
       if :: keptEpoch[c] != epoch -> delivered[c] = 0 :: else -> skip fi;
       connection[c]++; keptEpoch[c] = epoch; otherEpochAnswered[c] = false;
       toRepeatOther[c] = (OTHERS > 0);
       if :: kept[c] -> repeat(c) :: else -> since[c] = 0 fi
     }
  /* The service takes the repeated registrations, and answers each once it has queued all it owes. */
  :: d_step {
       reachable[c] && toRepeatOther[c] -> toRepeatOther[c] = false; registeredOther[c] = true
     }
  :: atomic {
       reachable[c] && !toRepeatOther[c] && toRepeat[c] && !toAnswer[c] ->
       toRepeat[c] = false; registered[c] = true; toAnswer[c] = true;
       tellIfMissed(c, repeatWith[c])
     }
  :: atomic {
       reachable[c] && toAnswer[c] && !waits[c] && len(wire[c].frames) < ROOM ->
       toAnswer[c] = false; wire[c].frames!acknowledgement(0, revision, 0)
     }
  /* Room again: what waited leaves, as the newest state. */
  :: atomic {
       reachable[c] && waits[c] && len(wire[c].frames) < ROOM ->
       waits[c] = false; wire[c].frames!notice(value, revision, changedAt)
     }
  /* What the client reads. */
  :: atomic {
       connected[c] && wire[c].frames?[acknowledgement, _, _, _] ->
       wire[c].frames?acknowledgement(v, r, at);
       acknowledge(c, connection[c], keptEpoch[c], r);
       v = 0; r = 0
     }
  :: atomic {
       connected[c] && wire[c].frames?[notice, _, _, _] ->
       wire[c].frames?notice(v, r, at);
#ifdef WITHOUT_STAMPS
#ifndef NOTICES_MAY_BE_OVERWRITTEN
       if
       :: c == 0 -> overtaken[0] = true; overtaken[1] = true
       :: else -> overtaken[2] = true
       fi;
#endif
       cached[c] = v;
#else
       /* What is older than what the cache holds, or held, is told to handlers and not stored. */
       if
#ifndef OLDER_NOTICES_ARE_STORED
       :: OLDER(keptEpoch[c], at, stampEpoch[c], stampAt[c]) -> skip
#endif
       :: else -> cached[c] = v; stampEpoch[c] = keptEpoch[c]; stampAt[c] = at
       fi;
#endif
       if :: r > delivered[c] -> delivered[c] = r :: else -> skip fi;
       v = 0; r = 0; at = 0
     }
  :: atomic {
       connected[c] && wire[c].frames?[otherNotice, _, _, _] ->
       wire[c].frames?otherNotice(v, r, at);
       if :: r > delivered[c] -> delivered[c] = r :: else -> skip fi;
       v = 0; r = 0
     }
  /* The connection is dead. What was written before may still be read, or not. */
  :: atomic {
       connected[c] && !reachable[c] ->
       connected[c] = false; toRepeat[c] = false; toRepeatOther[c] = false; toAnswer[c] = false;
       do
       :: len(wire[c].frames) > 0 -> wire[c].frames?_, _, _, _
       :: len(wire[c].frames) == 0 -> break
       od
     }
  od
}

/* --- What happens to them --- */
inline lose(c) {
  registered[c] = false; registeredOther[c] = false; reachable[c] = false; waits[c] = false
}

proctype World() {
  byte commits = COMMITS, others = OTHERS, kills = KILLS, epochs = EPOCHS, cuts = CUTS;
  do
  :: up -> break    /* no more of it */
  :: atomic { up && commits > 0 -> commits--; commit() }
  :: atomic {
       up && others > 0 ->
       others--; revision++;
       if
       :: registeredOther[0] && reachable[0] && !waits[0] && len(wire[0].frames) < ROOM ->
            wire[0].frames!otherNotice(0, revision, 0)
       :: !(registeredOther[0] && reachable[0] && !waits[0] && len(wire[0].frames) < ROOM) -> skip
       fi
     }
  :: d_step {
       up && kills > 0 ->
       kills--; up = false;
       lose(0);
#if CLIENTS > 1
       lose(1)
#endif
     }
  :: d_step { !up -> up = true }
  :: d_step { !up && epochs > 0 -> epochs--; up = true; epoch++; value++ }
  /* The registrations of a client that has other connections stay. */
  :: d_step { up && cuts > 0 && reachable[0] -> cuts--; reachable[0] = false; waits[0] = false }
  od
}

#define AGREES(c) (cached[c] == NOTHING || cached[c] == value)

init {
  atomic {
    run Application(0, 0, false); run Delivery(0); running = 1;
#if WRITERS
    run Application(0, 1, true); running++;
#endif
#if CLIENTS > 1
    run Application(1, 2, false); run Delivery(1); running++;
#endif
    run World()
  };
  /* Nothing can move any more: everything that could happen has, and all is delivered. */
  timeout ->
  assert(running == 0 && up);
  assert(AGREES(0))
#if CLIENTS > 1
  ; assert(AGREES(1))
#endif
}
