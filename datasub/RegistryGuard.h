// RegistryGuard.h: the process-wide guard around the global registry's life.
//
// zv_registry is created by one subscriber and deleted by another, in any
// thread. Every library path that reads the pointer, and every DR_Lock,
// holds this guard (recursive, statically initialised, never destroyed), so
// a registry found through zv_registry stays alive until it is locked, and
// its deletion cannot overlap anyone else's use of it. The guard is always
// taken before the registry's own lock, which keeps one lock order.
#ifndef _ZV_REGISTRY_GUARD_H
#define _ZV_REGISTRY_GUARD_H

namespace zv_datasub {

void LockRegistryGuard();
void UnlockRegistryGuard();

class RegistryGuard
{
public:
	RegistryGuard() { LockRegistryGuard(); }
	~RegistryGuard() { UnlockRegistryGuard(); }

	RegistryGuard(const RegistryGuard&) = delete;
	RegistryGuard& operator=(const RegistryGuard&) = delete;
};

} // namespace zv_datasub

#endif // _ZV_REGISTRY_GUARD_H
