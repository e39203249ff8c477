#include "platform/crashpoint.h"

#include <csignal>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/*
 * Runs five passes through "test.window" in a child armed for pass
 * `count`; returns how many passes got out before the child was stopped
 * or killed, and the child's wait status.
 */
int passes_before_fire(unsigned count, tolvar_crash_action action,
    int *status)
{
	int fds[2];
	EXPECT_EQ(pipe(fds), 0);
	pid_t pid = fork();
	if (pid == 0) {
		close(fds[0]);
		tolvar_crash_point_arm("test.window", count, action);
		for (int i = 0; i < 5; i++) {
			TOLVAR_CRASH_POINT("other.window");
			TOLVAR_CRASH_POINT("test.window");
			char c = 'x';
			(void)!write(fds[1], &c, 1);
		}
		_exit(0);
	}
	close(fds[1]);
	EXPECT_EQ(waitpid(pid, status, WUNTRACED), pid);
	if (WIFSTOPPED(*status)) {
		kill(pid, SIGKILL);
		waitpid(pid, nullptr, 0);
	}
	char buf[8];
	ssize_t n = read(fds[0], buf, sizeof buf);
	close(fds[0]);
	return static_cast<int>(n);
}

TEST(CrashPoint, FiresOnTheArmedPassOfTheArmedNameOnly)
{
	int status;
	EXPECT_EQ(passes_before_fire(3, TOLVAR_CRASH_KILL, &status), 2);
	ASSERT_TRUE(WIFSIGNALED(status));
	EXPECT_EQ(WTERMSIG(status), SIGKILL);

	EXPECT_EQ(passes_before_fire(1, TOLVAR_CRASH_STOP, &status), 0);
	EXPECT_TRUE(WIFSTOPPED(status));
}

TEST(CrashPoint, UnarmedMarksDoNothing)
{
	tolvar_crash_point_arm(nullptr, 0, TOLVAR_CRASH_KILL);
	TOLVAR_CRASH_POINT("test.window");
	EXPECT_EQ(tolvar_crash_point_passes("test.window"), 0u);
}

} /* namespace */
