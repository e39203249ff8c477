/*
 * sdbctl's registration with keel, shared by the subcommands that work on
 * the stores.
 */
#ifndef SDBCTL_ATTACH_H
#define SDBCTL_ATTACH_H

struct keel_handle;

/* Registered handle, or null after a message on stderr. */
struct keel_handle *sdbctl_attach(const char *what);
void sdbctl_detach(struct keel_handle *h);

#endif
