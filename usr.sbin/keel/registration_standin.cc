/*
 * No registration server yet: clients open the stores on their own once
 * keel has made them.  The socket server takes this file's place.
 */
#include "keel.h"

int keel_registration_start(evContext)
{
	return 0;
}

void keel_registration_ready(int)
{
}

void keel_registration_stop(void)
{
}
