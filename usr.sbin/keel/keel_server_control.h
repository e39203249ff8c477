/*
 * Test control of keel's socket server.
 *
 * Tests need a keel that misbehaves on purpose.  When keel starts with
 * TOLVAR_KEEL_TEST_CONTROL=1 in its environment it also listens on the
 * unix stream socket "/var/run/keel_test_control" (below TOLVAR_ROOT,
 * mode 0600).  Without the variable there is no such socket and nothing
 * here can be reached.
 *
 * A test connects, writes one command line, and reads the reply: any
 * lines of output, then "ok" or "error: <reason>", each ending in a
 * newline; keel then closes the connection.  Commands:
 *
 *   status <n>       answer every registration with failure and status n
 *                    (a negative library status, e.g. -19, -17, -31)
 *   status normal    answer as keel's own state says (the default)
 *   silent on|off    read registrations but never answer them
 *   drop             close every client connection at once
 *   issu <n>         relay chassis ISSU message n to every registered client
 *   mastership       read the role again, as on SIGHUP
 *   send <hex>       write these raw bytes to every client connection
 *   clients          one line "<name> <pid>" per registered client
 *
 * tests/system/test_keel_client.py drives it with the keel_control()
 * helper.
 */
#ifndef KEEL_SERVER_CONTROL_H
#define KEEL_SERVER_CONTROL_H

#define KEEL_TEST_CONTROL_PATH	"/var/run/keel_test_control"
#define KEEL_TEST_CONTROL_ENV	"TOLVAR_KEEL_TEST_CONTROL"

#endif
