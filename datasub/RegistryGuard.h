// RegistryGuard.h: the process-wide guard around the global registry's life.
//
// zv_registry is created by one subscriber and deleted by another, in any
// thread. Every library path that reads the pointer, and every DR_Lock,
// holds this guard (recursive, statically initialised, never destroyed), so
// a registry found through zv_registry stays alive until it is locked, and
// its deletion cannot overlap anyone else's use of it. The guard is always
// taken before the registry's own lock, which keeps one lock order.
//
// LockedRegistry holds a registry's DR_Lock for a scope: every path out of
// the scope unlocks it, except where the registry was deleted while locked
// (its destructor gives the lock levels back; see Forget).
#ifndef _ZV_REGISTRY_GUARD_H
#define _ZV_REGISTRY_GUARD_H

#include <ZvDataRegistry.h>

namespace zvkit::internal {

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

class LockedRegistry
{
public:
	// Locks registry, unless it is null; IsLocked says whether it was had.
	explicit LockedRegistry(ZvDataRegistry* registry)
	    : fRegistry(registry != nullptr && registry->DR_Lock() ? registry : nullptr)
	{
	}
	~LockedRegistry()
	{
		if (fRegistry != nullptr)
			fRegistry->DR_Unlock();
	}

	LockedRegistry(const LockedRegistry&) = delete;
	LockedRegistry& operator=(const LockedRegistry&) = delete;

	bool IsLocked() const { return fRegistry != nullptr; }
	ZvDataRegistry* Get() const { return fRegistry; }
	ZvDataRegistry* operator->() const { return fRegistry; }

	// The registry is about to be deleted while locked: nothing to unlock.
	void Forget() { fRegistry = nullptr; }

private:
	ZvDataRegistry* fRegistry;
};

} // namespace zvkit::internal

#endif // _ZV_REGISTRY_GUARD_H
