/* SPDX-License-Identifier: Apache-2.0 */
#include <jni.h>
#include <kesaudio/kesaudio.h>

enum { SURROUND_BYTES = 12, STEREO_BYTES = 4 }; /* of a frame of 16-bit samples */

/* Mixer.mix: throws IllegalArgumentException, and writes nothing, when a buffer is not direct or too small. */
JNIEXPORT void JNICALL Java_kesaudio_example_Mixer_mix(JNIEnv* env, jobject self, jobject surround, jint frames,
                                                       jobject stereo) {
  const void* const src = (*env)->GetDirectBufferAddress(env, surround);
  void* const dst = (*env)->GetDirectBufferAddress(env, stereo);
  (void)self;
  if (!src || !dst || frames < 0 || (*env)->GetDirectBufferCapacity(env, surround) / SURROUND_BYTES < frames ||
      (*env)->GetDirectBufferCapacity(env, stereo) / STEREO_BYTES < frames) {
    (*env)->ThrowNew(env, (*env)->FindClass(env, "java/lang/IllegalArgumentException"),
                     "surround and stereo must be direct buffers of 12 and 4 bytes a frame");
    return;
  }
  uint32_t inBytes = (uint32_t)frames * SURROUND_BYTES, outBytes = (uint32_t)frames * STEREO_BYTES;
  Audio_Channel_Downmix(6, 2, KES_PCM_S16, src, &inBytes, dst, &outBytes, KES_LAYOUT_5POINT1);
}
