// ZvKit.h: the umbrella header of the ZvKit library.
//
// Including this one header gives every public class, template, function,
// constant and global of the library, and the platform kits it is written
// against (SupportDefs.h, OS.h, ...).
#ifndef _ZVKIT_H
#define _ZVKIT_H

#include <ZvExport.h>
#include <ZvKitVersion.h>

// Checked mode.
#include <ZvChecks.h>

// Threads and synchronisation.
#include <Benaphore.h>
#include <ZvLocker.h>
#include <ZvSemaphore.h>
#include <ZvThread.h>

// Message container.
#include <ZvByteOrder.h>
#include <ZvGeometry.h>
#include <ZvList.h>
#include <ZvMessage.h>
#include <ZvTypeCodes.h>

// Looper framework.
#include <ZvDescriptorWatch.h>
#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvLooperRef.h>
#include <ZvMessageQueue.h>
#include <ZvMessageRunner.h>
#include <ZvMessenger.h>

// Data subscription.
#include <ZvDataLinker.h>
#include <ZvDataRegistry.h>
#include <ZvDataSubscriber.h>

// Loopers reached from other processes over ZeroMQ (declared here, built
// into libzvremote: link ZvKit::zvremote or pkg-config zvremote to use them).
#include <ZvRemote.h>

// Between ZvMessage and the platform's BMessage.
#include <ZvMessageBridge.h>

// Text.
#include <UTFString.h>
#include <ZvRString.h>
#include <ZvUTF8.h>

// Numeric helpers.
#include <ZvEvaluate.h>
#include <ZvResize.h>

// Graphics helpers.
#include <ZvColor.h>
#include <ZvScreen.h>
#include <ZvTransform.h>

#endif // _ZVKIT_H
