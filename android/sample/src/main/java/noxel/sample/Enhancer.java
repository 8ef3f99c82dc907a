package noxel.sample;

import android.media.Image;
import android.util.Size;
import android.view.Surface;

import java.io.File;
import java.nio.ByteBuffer;

/** A live enhancer of libnoxel that draws into a Surface. One thread at a time. */
final class Enhancer implements AutoCloseable {
    /** The GPU's context was lost: make another enhancer. As NOXEL_ERROR_LOST of noxel/enhancer.h. */
    static final int LOST = -5;

    /** There was no memory for this frame; the next may find some. As NOXEL_ERROR_MEMORY. */
    static final int NO_MEMORY = -2;

    static {
        System.loadLibrary("noxel_sample");
    }

    private long handle;

    private Enhancer(long handle) {
        this.handle = handle;
    }

    /**
     * Makes an enhancer for frames of one size. Takes up to seconds where no compiled programs are cached yet.
     *
     * @param surface must stay valid until {@link #close}
     * @param cacheDirectory for compiled programs; made if its parent is there
     * @return null on failure; the log says why
     */
    static Enhancer create(Size size, Surface surface, File cacheDirectory) {
        long handle = create(size.getWidth(), size.getHeight(), surface, cacheDirectory.getPath());
        return handle != 0 ? new Enhancer(handle) : null;
    }

    /** Leaves the frames as they come, or enhances them. */
    void setOriginal(boolean original) {
        setOriginal(handle, original);
    }

    /** Hands in a YUV_420_888 image of the enhancer's size; it may be closed after the call. Negative: an error. */
    int send(Image image) {
        Image.Plane[] planes = image.getPlanes();
        Image.Plane y = planes[0];
        Image.Plane u = planes[1];
        Image.Plane v = planes[2];
        return send(handle, y.getBuffer(), y.getRowStride(), y.getPixelStride(), u.getBuffer(), u.getRowStride(),
                u.getPixelStride(), v.getBuffer(), v.getRowStride(), v.getPixelStride(), image.getTimestamp());
    }

    @Override
    public void close() {
        if (handle != 0) free(handle);
        handle = 0;
    }

    private static native long create(int width, int height, Surface surface, String cacheDirectory);

    private static native void setOriginal(long handle, boolean original);

    private static native int send(long handle, ByteBuffer y, int yRowStride, int yPixelStride, ByteBuffer u,
            int uRowStride, int uPixelStride, ByteBuffer v, int vRowStride, int vPixelStride, long timeNs);

    private static native void free(long handle);
}
