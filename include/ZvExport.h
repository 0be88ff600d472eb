// ZvExport.h: the export marker of the ZvKit library.
//
// libzvkit is built with hidden visibility; every class and function that is
// part of the public interface is marked ZV_EXPORT.
#ifndef _ZV_EXPORT_H
#define _ZV_EXPORT_H

// Marks a class, function or variable as part of libzvkit's interface.
#define ZV_EXPORT __attribute__((visibility("default")))

#endif // _ZV_EXPORT_H
