#pragma once

// lorunsrc: a live source of any GenTL camera. It loads a producer as every
// consumer does (dlopen), offers the camera's pixel formats, sizes and frame
// rates as caps, and pushes each filled GenTL buffer as the GstBuffer's
// memory; the buffer goes back to the camera when downstream lets go of it.
#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define LORUN_TYPE_SRC (lorun_src_get_type())
G_DECLARE_FINAL_TYPE(LorunSrc, lorun_src, LORUN, SRC, GstPushSrc)

// What an incomplete buffer does.
typedef enum {
    LORUN_CAPTURE_ERROR_KEEP,  // pushed, flagged CORRUPTED
    LORUN_CAPTURE_ERROR_SKIP,  // given back to the camera, counted
    LORUN_CAPTURE_ERROR_ABORT, // ends the stream with an element error
} LorunCaptureError;

#define LORUN_TYPE_CAPTURE_ERROR (lorun_capture_error_get_type())
GType lorun_capture_error_get_type(void);

G_END_DECLS
