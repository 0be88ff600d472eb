// Under ThreadSanitizer: libzmq is not instrumented. Its I/O threads take
// messages from ours through lock-free queues the race detector cannot see,
// so memory that libzmq allocates in one thread and copies in another looks
// raced. The accesses libzmq makes itself are left out; ours are all
// checked. Linked into the remote tests and the peer program, which export
// it so that it takes the place of the runtime's own (see deps.cmake).
#if defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
	return "called_from_lib:libzmq.so\nrace:libzmq.so\n";
}
#endif

// Under AddressSanitizer: libzmq, not built with it, can keep a small block
// of its own past exit when a peer went away mid-connection (seen: 74 bytes
// allocated and held by libzmq alone). Leaks whose allocation stack is
// within libzmq are left out; every leak of ours is still reported.
#if defined(__SANITIZE_ADDRESS__)
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
	return "leak:libzmq.so\n";
}
#endif
