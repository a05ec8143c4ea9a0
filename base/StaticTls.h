#pragma once

// The producer's thread-local variables live in the static TLS block even
// when the producer is loaded with dlopen: no __tls_get_addr call on every
// access (the error slots are touched by every exported call), and no TLS
// block from malloc, whose bounds AddressSanitizer's leak checker misreads
// under glibc 2.36 and then crashes at exit. The few bytes fit in the static
// TLS that glibc reserves for libraries loaded later.
#define LORUN_STATIC_TLS __attribute__((tls_model("initial-exec")))
