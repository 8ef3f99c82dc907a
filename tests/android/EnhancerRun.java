package noxel.sample;

import android.media.Image;
import android.util.Size;
import android.view.Surface;

import java.io.File;
import java.nio.ByteBuffer;

/** Hands flat pictures to the sample's Enhancer in each layout of a camera's planes, and looks at its window. */
final class EnhancerRun {
    private static final int WIDTH = 320;
    private static final int HEIGHT = 240;
    private static final int LUMA = 60;
    // 8-bit levels: conversion and the window's own rounding. A swap of U and V changes two colours by over 40.
    private static final int TOLERANCE = 4;
    private static final long LIMIT_NS = 20_000_000_000L; // for software GL on a busy machine

    /** Where a camera puts U and V: offsets into one buffer, and the bytes from sample to sample. */
    enum Layout {
        NV12(0, 1, 2),
        NV21(1, 0, 2),
        I420(0, WIDTH * HEIGHT / 4, 1),
        APART(0, WIDTH * HEIGHT, 2);

        final int uAt;
        final int vAt;
        final int pixelStride;

        Layout(int uAt, int vAt, int pixelStride) {
            this.uAt = uAt;
            this.vAt = vAt;
            this.pixelStride = pixelStride;
        }
    }

    private static final class FlatPlane extends Image.Plane {
        private final ByteBuffer bytes;
        private final int rowStride;
        private final int pixelStride;

        FlatPlane(ByteBuffer bytes, int rowStride, int pixelStride) {
            this.bytes = bytes;
            this.rowStride = rowStride;
            this.pixelStride = pixelStride;
        }

        @Override
        public int getRowStride() {
            return rowStride;
        }

        @Override
        public int getPixelStride() {
            return pixelStride;
        }

        @Override
        public ByteBuffer getBuffer() {
            return bytes;
        }
    }

    private static final class FlatImage extends Image {
        private static long frames;
        private final Plane[] planes;

        FlatImage(Layout layout, int u, int v, boolean direct) {
            ByteBuffer luma = buffer(WIDTH * HEIGHT, direct);
            for (int i = 0; i < luma.capacity(); ++i) luma.put(i, (byte) LUMA);
            ByteBuffer chroma = buffer(2 * WIDTH * HEIGHT, direct);
            int rowStride = WIDTH / 2 * layout.pixelStride;
            for (int i = 0; i < WIDTH * HEIGHT / 4; ++i) {
                chroma.put(layout.uAt + i * layout.pixelStride, (byte) u);
                chroma.put(layout.vAt + i * layout.pixelStride, (byte) v);
            }
            planes = new Plane[] {new FlatPlane(luma, WIDTH, 1),
                new FlatPlane(from(chroma, layout.uAt), rowStride, layout.pixelStride),
                new FlatPlane(from(chroma, layout.vAt), rowStride, layout.pixelStride)};
        }

        private static ByteBuffer buffer(int size, boolean direct) {
            return direct ? ByteBuffer.allocateDirect(size) : ByteBuffer.allocate(size);
        }

        private static ByteBuffer from(ByteBuffer bytes, int offset) {
            ByteBuffer rest = bytes.duplicate();
            rest.position(offset);
            return rest.slice();
        }

        @Override
        public Plane[] getPlanes() {
            return planes;
        }

        @Override
        public long getTimestamp() {
            return ++frames * 33_333_333L;
        }

        @Override
        public void close() {}
    }

    private EnhancerRun() {}

    /** The window's middle pixel, 0xRRGGBB. */
    private static native int shown();

    private static void require(boolean holds, String what) {
        if (!holds) throw new AssertionError(what);
    }

    private static boolean isNear(int pixel, int red, int green, int blue) {
        return Math.abs((pixel >> 16 & 255) - red) <= TOLERANCE && Math.abs((pixel >> 8 & 255) - green) <= TOLERANCE
                && Math.abs((pixel & 255) - blue) <= TOLERANCE;
    }

    /** Sends one picture after the other until the window shows what is wanted. */
    private static void sendUntil(Enhancer enhancer, Image image, java.util.function.IntPredicate wanted)
            throws InterruptedException {
        long end = System.nanoTime() + LIMIT_NS;
        while (!wanted.test(shown())) {
            require(System.nanoTime() < end, "the window stays at " + Integer.toHexString(shown()));
            int result = enhancer.send(image);
            require(result >= 0, "send returned " + result);
            Thread.sleep(20);
        }
    }

    public static void main(String[] arguments) throws InterruptedException {
        File cache = new File(arguments[0]);
        for (int life = 0; life < 2; ++life) {
            Enhancer enhancer = Enhancer.create(new Size(WIDTH, HEIGHT), new Surface(null), cache);
            require(enhancer != null, "no enhancer");
            enhancer.setOriginal(true);
            for (Layout layout : Layout.values()) {
                // Full range, BT.601: a chroma of 30 above its middle adds 1.772 * 30 to blue or 1.402 * 30 to red, and
                // takes 0.344 * 30 or 0.714 * 30 from green. The next layout has the other colour: each has to be shown.
                boolean blue = layout.ordinal() % 2 == 0;
                Image image = new FlatImage(layout, blue ? 158 : 128, blue ? 128 : 158, true);
                sendUntil(enhancer, image, pixel -> blue ? isNear(pixel, 60, 50, 113) : isNear(pixel, 102, 39, 60));
            }
            enhancer.setOriginal(false);
            sendUntil(enhancer, new FlatImage(Layout.NV21, 128, 128, true), pixel -> (pixel >> 8 & 255) > LUMA + 15);
            require(enhancer.send(new FlatImage(Layout.NV12, 128, 128, false)) == -1, "a buffer that is not direct");
            enhancer.close();
            enhancer.close();
        }
        require(cache.list() != null && cache.list().length > 0, "no programs are cached");
    }
}
