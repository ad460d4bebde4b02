// SPDX-License-Identifier: Apache-2.0
// Stands for the Kotlin object of the same name: its native method is called by a Java machine of this computer.
package kesaudio.example;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;

class Mixer {
  native void mix(ByteBuffer surround, int frames, ByteBuffer stereo);

  public static void main(String[] arguments) {
    System.loadLibrary("mixer");
    ByteBuffer surround = ByteBuffer.allocateDirect(12).order(ByteOrder.nativeOrder());
    ByteBuffer stereo = ByteBuffer.allocateDirect(4).order(ByteOrder.nativeOrder());
    surround.putShort(4, (short) 1000);
    new Mixer().mix(surround, 1, stereo);
    System.out.println(stereo.getShort(0) + " " + stereo.getShort(2));
    for (ByteBuffer small : new ByteBuffer[] {ByteBuffer.allocate(99), ByteBuffer.allocateDirect(3)}) {
      try {
        new Mixer().mix(surround, 1, small);
        System.out.println("taken");
      } catch (IllegalArgumentException refused) {
        System.out.println("refused");
      }
    }
  }
}
