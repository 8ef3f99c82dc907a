package noxel.sample;

import android.content.Context;
import android.graphics.ImageFormat;
import android.graphics.SurfaceTexture;
import android.hardware.camera2.CameraAccessException;
import android.hardware.camera2.CameraCaptureSession;
import android.hardware.camera2.CameraCharacteristics;
import android.hardware.camera2.CameraDevice;
import android.hardware.camera2.CameraManager;
import android.hardware.camera2.CaptureRequest;
import android.hardware.camera2.params.StreamConfigurationMap;
import android.media.Image;
import android.media.ImageReader;
import android.os.Handler;
import android.os.Looper;
import android.util.Size;
import android.view.Surface;

import java.io.File;
import java.util.Collections;

/**
 * The camera's stream, enhanced and drawn into a SurfaceTexture, from the constructor to {@link #close}.
 *
 * <p>All the work is done on one handler's thread, so that nothing is freed while it is used, and a session that is closed
 * has let go of camera and texture before the next one on the same handler begins. Public methods return at once.
 */
final class CameraSession {
    /** Called on the main thread. */
    interface Listener {
        /** The size of the frames, and by how many degrees they are to be turned clockwise in a display held upright. */
        void onStarted(CameraSession session, Size frame, int sensorOrientation);

        /** The stream has ended for good; the session is still to be closed. */
        void onFailure(CameraSession session, String reason);
    }

    /** Frames up to this size are taken: mid-range phones enhance them at the camera's rate. */
    private static final long MAX_PIXELS = 1280L * 720L;

    private static final int IMAGES = 3; // one in use, one waiting, one being filled

    private final Context context;
    private final SurfaceTexture texture;
    private final Handler handler;
    private final Handler mainThread = new Handler(Looper.getMainLooper());
    private final Listener listener;

    // Of the handler's thread.
    private boolean closed;
    private boolean original;
    private Size size;
    private Surface surface;
    private Enhancer enhancer;
    private ImageReader reader;
    private CameraDevice camera;

    CameraSession(Context context, SurfaceTexture texture, Handler handler, Listener listener) {
        this.context = context.getApplicationContext();
        this.texture = texture;
        this.handler = handler;
        this.listener = listener;
        handler.post(this::open);
    }

    /** Shows the camera's own picture, or the enhanced one. */
    void setOriginal(boolean wanted) {
        handler.post(() -> {
            original = wanted;
            if (enhancer != null) enhancer.setOriginal(wanted);
        });
    }

    /** Ends the stream. What is posted to the handler after this call runs when camera and texture are free again. */
    void close() {
        handler.post(() -> {
            closed = true;
            free();
        });
    }

    private void open() {
        if (closed) return;
        CameraManager manager = context.getSystemService(CameraManager.class);
        try {
            String id = backCamera(manager);
            if (id == null) {
                fail("this device has no camera");
                return;
            }
            CameraCharacteristics characteristics = manager.getCameraCharacteristics(id);
            size = frameSize(characteristics.get(CameraCharacteristics.SCALER_STREAM_CONFIGURATION_MAP));
            if (size == null) {
                fail("the camera has no YUV_420_888 frames");
                return;
            }
            texture.setDefaultBufferSize(size.getWidth(), size.getHeight());
            surface = new Surface(texture);
            if (!makeEnhancer()) return;
            reader = ImageReader.newInstance(size.getWidth(), size.getHeight(), ImageFormat.YUV_420_888, IMAGES);
            reader.setOnImageAvailableListener(this::enhance, handler);
            manager.openCamera(id, new DeviceCallback(), handler);

            Integer orientation = characteristics.get(CameraCharacteristics.SENSOR_ORIENTATION);
            int degrees = orientation != null ? orientation : 0;
            mainThread.post(() -> listener.onStarted(this, size, degrees));
        } catch (CameraAccessException | SecurityException error) {
            fail(error.getMessage());
        }
    }

    /** The camera at the device's back, else its first one; null where it has none. */
    private static String backCamera(CameraManager manager) throws CameraAccessException {
        String[] ids = manager.getCameraIdList();
        for (String id : ids) {
            Integer facing = manager.getCameraCharacteristics(id).get(CameraCharacteristics.LENS_FACING);
            if (facing != null && facing == CameraCharacteristics.LENS_FACING_BACK) return id;
        }
        return ids.length > 0 ? ids[0] : null;
    }

    /** The largest size of at most MAX_PIXELS, else the smallest there is; null where there is none. */
    private static Size frameSize(StreamConfigurationMap map) {
        Size[] sizes = map != null ? map.getOutputSizes(ImageFormat.YUV_420_888) : null;
        Size best = null;
        for (Size each : sizes != null ? sizes : new Size[0]) {
            if (best == null || isBetter(pixels(each), pixels(best))) best = each;
        }
        return best;
    }

    private static boolean isBetter(long candidate, long best) {
        if (candidate > MAX_PIXELS) return candidate < best;
        return best > MAX_PIXELS || candidate > best;
    }

    private static long pixels(Size size) {
        return (long) size.getWidth() * size.getHeight();
    }

    private boolean makeEnhancer() {
        // The system empties this directory when the application or the platform changes, as compiled programs need it.
        enhancer = Enhancer.create(size, surface, new File(context.getCodeCacheDir(), "noxel"));
        if (enhancer == null) {
            fail("the GPU cannot enhance these frames; the log says why");
            return false;
        }
        enhancer.setOriginal(original);
        return true;
    }

    private void enhance(ImageReader source) {
        // Frames that came while the last one was handed in are skipped: a live picture shows the newest.
        try (Image image = source.acquireLatestImage()) {
            if (image == null || enhancer == null) return;
            int result = enhancer.send(image);
            if (result == Enhancer.LOST) {
                enhancer.close();
                makeEnhancer();
            } else if (result < 0 && result != Enhancer.NO_MEMORY) {
                fail("a frame was refused: error " + result);
            }
        }
    }

    private void fail(String reason) {
        free();
        mainThread.post(() -> listener.onFailure(this, reason));
    }

    /** In the order in which frames flow: each part goes before the one that it writes to. */
    private void free() {
        if (camera != null) camera.close();
        camera = null;
        if (reader != null) reader.close();
        reader = null;
        if (enhancer != null) enhancer.close();
        enhancer = null;
        if (surface != null) surface.release();
        surface = null;
    }

    private final class DeviceCallback extends CameraDevice.StateCallback {
        @Override
        public void onOpened(CameraDevice device) {
            if (reader == null) { // closed, or failed, while the camera was opening
                device.close();
                return;
            }
            camera = device;
            try {
                device.createCaptureSession(
                        Collections.singletonList(reader.getSurface()), new StreamCallback(), handler);
            } catch (CameraAccessException | IllegalStateException error) {
                fail(error.getMessage());
            }
        }

        @Override
        public void onDisconnected(CameraDevice device) {
            device.close();
            if (!closed) fail("another application has taken the camera");
        }

        @Override
        public void onError(CameraDevice device, int error) {
            device.close();
            if (!closed) fail("the camera has failed: error " + error);
        }
    }

    private final class StreamCallback extends CameraCaptureSession.StateCallback {
        @Override
        public void onConfigured(CameraCaptureSession session) {
            if (camera == null) return;
            try {
                CaptureRequest.Builder request = camera.createCaptureRequest(CameraDevice.TEMPLATE_PREVIEW);
                request.addTarget(reader.getSurface());
                session.setRepeatingRequest(request.build(), null, handler);
            } catch (CameraAccessException | IllegalStateException error) {
                fail(error.getMessage());
            }
        }

        @Override
        public void onConfigureFailed(CameraCaptureSession session) {
            if (!closed) fail("the camera cannot deliver frames of this size");
        }
    }
}
