// SPDX-License-Identifier: Apache-2.0
package kesaudio.example

import android.app.Activity
import android.os.Bundle
import android.widget.TextView
import java.nio.ByteBuffer
import java.nio.ByteOrder

/** Shows what the 5.1 mix makes of a centre channel. */
class MainActivity : Activity() {
    override fun onCreate(state: Bundle?) {
        super.onCreate(state)
        val surround = ByteBuffer.allocateDirect(12).order(ByteOrder.nativeOrder())
        val stereo = ByteBuffer.allocateDirect(4).order(ByteOrder.nativeOrder())
        surround.putShort(2 * 2, 1000)
        Mixer.mix(surround, 1, stereo)
        setContentView(TextView(this).apply { text = "${stereo.getShort(0)} ${stereo.getShort(2)}" })
    }
}
