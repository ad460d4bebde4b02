// SPDX-License-Identifier: Apache-2.0
package kesaudio.example

import java.nio.ByteBuffer

object Mixer {
    init {
        System.loadLibrary("mixer") // which brings libkesaudio.so along
    }

    /** Mixes frames of 5.1, 16 bits, to stereo. Both buffers are direct, in the order of native bytes. */
    external fun mix(surround: ByteBuffer, frames: Int, stereo: ByteBuffer)
}
