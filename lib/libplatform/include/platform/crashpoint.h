/*
 * Named crash points: a test-only way to stop a process at an exact
 * instruction window (between two system calls, inside a loop that fills
 * a store) that random kills reach too rarely.
 *
 * Code marks a window with TOLVAR_CRASH_POINT("module.window").  Nothing
 * happens unless a test arms that name, either through the environment
 * of the process,
 *
 *	TOLVAR_CRASH_AT=name[@N][:stop]
 *
 * or, in a forked child of a unit test, with tolvar_crash_point_arm().
 * On the N-th pass (default the first) the process sends itself SIGKILL,
 * or SIGSTOP with ":stop" (a holder that hangs rather than dies).
 *
 * When no point is armed a mark costs one load of a global and a branch
 * that is never taken; no name is compared.
 */
#ifndef PLATFORM_CRASHPOINT_H
#define PLATFORM_CRASHPOINT_H

#ifdef __cplusplus
extern "C" {
#endif

enum tolvar_crash_action {
	TOLVAR_CRASH_KILL = 0,	/* SIGKILL: the holder dies */
	TOLVAR_CRASH_STOP = 1	/* SIGSTOP: the holder hangs */
};

/* Non-zero while some point is armed in this process. */
extern volatile int tolvar_crash_armed;

/* Slow path of the mark: counts a pass and acts on the armed one. */
void tolvar_crash_point_hit(const char *name);

/*
 * Arm name for the count-th pass (count 0 counts as 1); a NULL name
 * disarms.  Replaces whatever the environment armed.
 */
void tolvar_crash_point_arm(const char *name, unsigned count,
    enum tolvar_crash_action action);

/* Passes through name since it was armed; 0 for any other name. */
unsigned tolvar_crash_point_passes(const char *name);

#ifdef __cplusplus
}
#endif

#define TOLVAR_CRASH_POINT(name)					\
	do {								\
		if (__builtin_expect(tolvar_crash_armed != 0, 0))	\
			tolvar_crash_point_hit(name);			\
	} while (0)

#endif
