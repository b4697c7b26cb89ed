// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The same for what the device's static runtime calls: functions that C 2.34 moved to libc.

#include <cstdlib>

#include "platform/forward.h"

#ifdef BITFOLD_HAS_FORWARDS

BITFOLD_FORWARD("dlerror", "GLIBC_2.2.5");
BITFOLD_FORWARD("dlmopen", "GLIBC_2.3.4");
BITFOLD_FORWARD("dlvsym", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_condattr_setpshared", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_detach", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_getspecific", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_key_create", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_key_delete", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_kill", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_mutex_trylock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_mutexattr_destroy", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_mutexattr_init", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_mutexattr_setpshared", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_mutexattr_settype", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_once", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_destroy", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_init", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_rdlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_timedrdlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_timedwrlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_tryrdlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_trywrlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_unlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlock_wrlock", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlockattr_destroy", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlockattr_init", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_rwlockattr_setpshared", "GLIBC_2.2.5");
BITFOLD_FORWARD("pthread_setspecific", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_destroy", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_init", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_post", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_timedwait", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_trywait", "GLIBC_2.2.5");
BITFOLD_FORWARD("sem_wait", "GLIBC_2.2.5");
BITFOLD_FORWARD("shm_open", "GLIBC_2.2.5");
BITFOLD_FORWARD("shm_unlink", "GLIBC_2.2.5");

#endif  // BITFOLD_HAS_FORWARDS
