// ZvDataLinker.h: ties two data attributes together.
//
// A ZvDataLinker owns one subscriber on attribute A (ZvDataLinkerSubscriberA)
// and one on attribute B (ZvDataLinkerSubscriberB), both with flags 0. The
// conversions DL_ConvertAB and DL_ConvertBA carry the data of one side to
// the other and publish it there; the defaults copy all five kinds unchanged
// and then send an event from the receiving side. Derive from the linker to
// replace them (to scale a value, for example). Both conversions always get
// side A as a and side B as b, whichever direction they serve.
//
// A conversion runs when EventReceived is called on a side (by the
// application or by a class derived from a side); updates that reach a side
// through its attribute do not run one by themselves.
//
// Ownership: the linker owns its two sides; each side keeps a back pointer
// to its linker (not owned).
//
// Thread safety: as for ZvDataSubscriber. A default conversion writes into
// the other side without its attribute's semaphore and then takes that
// semaphore to send the event; linkers chained in a circle can make one
// thread wait on a semaphore it already holds.
#ifndef _ZV_DATA_LINKER_H
#define _ZV_DATA_LINKER_H

#include <SupportDefs.h>

#include <ZvDataSubscriber.h>
#include <ZvExport.h>

class ZvDataLinker;

// Side A of a ZvDataLinker: a subscriber on attribute A.
class ZV_EXPORT ZvDataLinkerSubscriberA : public ZvDataSubscriber
{
public:
	// Subscribes to name with flags; linker is the owner (not owned).
	ZvDataLinkerSubscriberA(const char* name, uint32 flags, ZvDataLinker* linker);
	// Unsubscribes.
	virtual ~ZvDataLinkerSubscriberA();

	// Runs the linker's DL_ConvertAB(side A, side B, what).
	virtual void EventReceived(uint32 what);

private:
	ZvDataLinker* fLinker;
};

// Side B of a ZvDataLinker: a subscriber on attribute B.
class ZV_EXPORT ZvDataLinkerSubscriberB : public ZvDataSubscriber
{
public:
	// Subscribes to name with flags; linker is the owner (not owned).
	ZvDataLinkerSubscriberB(const char* name, uint32 flags, ZvDataLinker* linker);
	// Unsubscribes.
	virtual ~ZvDataLinkerSubscriberB();

	// Runs the linker's DL_ConvertBA(side A, side B, what).
	virtual void EventReceived(uint32 what);

private:
	ZvDataLinker* fLinker;
};

// Ties attribute A to attribute B; see the file's description.
class ZV_EXPORT ZvDataLinker
{
public:
	// Creates side A on nameA, then side B on nameB; each subscribes at
	// once. A side that fails to subscribe (an empty name, say) stays in
	// place, not valid.
	ZvDataLinker(const char* nameA, const char* nameB);
	// Deletes side A, then side B; each unsubscribes.
	virtual ~ZvDataLinker();

	//@{
	// Not copyable.
	ZvDataLinker(const ZvDataLinker&) = delete;
	ZvDataLinker& operator=(const ZvDataLinker&) = delete;
	//@}

	// Default: *b = *a, then the result of b->DS_SendEvent(what).
	virtual status_t DL_ConvertAB(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what);
	// Default: *a = *b, then the result of a->DS_SendEvent(what).
	virtual status_t DL_ConvertBA(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what);

	//@{
	// The two sides, owned by the linker.
	ZvDataLinkerSubscriberA* DL_SubscriberA() const;
	ZvDataLinkerSubscriberB* DL_SubscriberB() const;
	//@}

protected:
	ZvDataLinkerSubscriberA* fSideA; // Side A, owned.
	ZvDataLinkerSubscriberB* fSideB; // Side B, owned.
};

#endif // _ZV_DATA_LINKER_H
