// ZvDataLinker.cpp: two attributes tied by a pair of conversions.
#include <ZvDataLinker.h>

ZvDataLinkerSubscriberA::ZvDataLinkerSubscriberA(const char* name, uint32 flags,
                                                 ZvDataLinker* linker)
    : // The base subscribes first: an initial pull reaches this side as a
      // plain subscriber, before it knows its linker.
      ZvDataSubscriber(name, flags), fLinker(linker)
{
}

ZvDataLinkerSubscriberA::~ZvDataLinkerSubscriberA() {}

void ZvDataLinkerSubscriberA::EventReceived(uint32 what)
{
	if (fLinker != nullptr)
		fLinker->DL_ConvertAB(fLinker->DL_SubscriberA(), fLinker->DL_SubscriberB(), what);
}

ZvDataLinkerSubscriberB::ZvDataLinkerSubscriberB(const char* name, uint32 flags,
                                                 ZvDataLinker* linker)
    : ZvDataSubscriber(name, flags), fLinker(linker)
{
}

ZvDataLinkerSubscriberB::~ZvDataLinkerSubscriberB() {}

void ZvDataLinkerSubscriberB::EventReceived(uint32 what)
{
	if (fLinker != nullptr)
		fLinker->DL_ConvertBA(fLinker->DL_SubscriberA(), fLinker->DL_SubscriberB(), what);
}

ZvDataLinker::ZvDataLinker(const char* nameA, const char* nameB) : fSideA(nullptr), fSideB(nullptr)
{
	// Side A is complete before side B exists.
	fSideA = new ZvDataLinkerSubscriberA(nameA, 0, this);
	fSideB = new ZvDataLinkerSubscriberB(nameB, 0, this);
}

ZvDataLinker::~ZvDataLinker()
{
	delete fSideA;
	delete fSideB;
}

namespace {

// The default conversion: the whole data of from goes into to, which then
// publishes the kinds named in what to the other subscribers of its
// attribute. The copy takes no lock; the event takes to's semaphore.
status_t CopyAndSend(ZvDataSubscriber* from, ZvDataSubscriber* to, uint32 what)
{
	if (from == nullptr || to == nullptr)
		return -1;
	*to = *from;
	return to->DS_SendEvent(what);
}

} // namespace

status_t ZvDataLinker::DL_ConvertAB(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what)
{
	return CopyAndSend(a, b, what);
}

status_t ZvDataLinker::DL_ConvertBA(ZvDataSubscriber* a, ZvDataSubscriber* b, uint32 what)
{
	return CopyAndSend(b, a, what);
}

ZvDataLinkerSubscriberA* ZvDataLinker::DL_SubscriberA() const
{
	return fSideA;
}

ZvDataLinkerSubscriberB* ZvDataLinker::DL_SubscriberB() const
{
	return fSideB;
}
