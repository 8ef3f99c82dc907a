package noxel.sample;

import android.Manifest;
import android.app.Activity;
import android.content.pm.PackageManager;
import android.graphics.Matrix;
import android.graphics.SurfaceTexture;
import android.hardware.display.DisplayManager;
import android.os.Bundle;
import android.os.Handler;
import android.os.HandlerThread;
import android.util.Size;
import android.view.Display;
import android.view.Surface;
import android.view.TextureView;
import android.widget.TextView;

/**
 * Shows the camera's picture, enhanced; a tap shows the camera's own.
 *
 * <p>There is a session while the activity is resumed, has the permission, and its TextureView has a texture. Whichever goes
 * first ends it. A turned device makes a new activity.
 */
public final class MainActivity extends Activity
        implements TextureView.SurfaceTextureListener, DisplayManager.DisplayListener, CameraSession.Listener {
    private static final int CAMERA_REQUEST = 1;
    private static final String ASKED = "asked";

    private TextureView picture;
    private TextView message;
    private HandlerThread thread;
    private Handler handler;

    private boolean asked; // for the permission; a second time only when the activity is started anew
    private boolean resumed;
    private boolean original;
    private SurfaceTexture texture; // null while there is none
    private CameraSession session; // null while there is none
    private Size frame; // null until the session has started
    private int sensorOrientation;

    @Override
    protected void onCreate(Bundle state) {
        super.onCreate(state);
        asked = state != null && state.getBoolean(ASKED);
        setContentView(R.layout.main);
        picture = findViewById(R.id.picture);
        picture.setContentDescription(getString(R.string.picture));
        message = findViewById(R.id.message);
        thread = new HandlerThread("camera");
        thread.start();
        handler = new Handler(thread.getLooper());
        picture.setOnClickListener(view -> {
            original = !original;
            message.setText(original ? getString(R.string.original) : "");
            if (session != null) session.setOriginal(original);
        });
        picture.setSurfaceTextureListener(this);
    }

    @Override
    protected void onSaveInstanceState(Bundle state) {
        super.onSaveInstanceState(state);
        state.putBoolean(ASKED, asked);
    }

    @Override
    protected void onResume() {
        super.onResume();
        resumed = true;
        getSystemService(DisplayManager.class).registerDisplayListener(this, null);
        if (isAllowed()) {
            startWhenReady();
        } else if (!asked) {
            asked = true;
            requestPermissions(new String[] {Manifest.permission.CAMERA}, CAMERA_REQUEST);
        } else {
            message.setText(R.string.no_permission);
        }
    }

    @Override
    protected void onPause() {
        resumed = false;
        getSystemService(DisplayManager.class).unregisterDisplayListener(this);
        stop();
        super.onPause();
    }

    @Override
    protected void onDestroy() {
        thread.quitSafely(); // after what stop() and onSurfaceTextureDestroyed have posted
        super.onDestroy();
    }

    @Override
    public void onRequestPermissionsResult(int request, String[] permissions, int[] results) {
        // Comes before onResume, which starts the session or says why there is none.
        if (resumed && isAllowed()) startWhenReady();
    }

    private boolean isAllowed() {
        return checkSelfPermission(Manifest.permission.CAMERA) == PackageManager.PERMISSION_GRANTED;
    }

    private void startWhenReady() {
        if (!resumed || texture == null || session != null || !isAllowed()) return;
        message.setText("");
        session = new CameraSession(this, texture, handler, this);
        session.setOriginal(original);
    }

    private void stop() {
        if (session != null) session.close();
        session = null;
        frame = null;
    }

    @Override
    public void onStarted(CameraSession started, Size size, int orientation) {
        if (started != session) return;
        frame = size;
        sensorOrientation = orientation;
        place();
    }

    @Override
    public void onFailure(CameraSession failed, String reason) {
        if (failed != session) return;
        stop();
        message.setText(reason);
    }

    @Override
    public void onSurfaceTextureAvailable(SurfaceTexture available, int width, int height) {
        texture = available;
        startWhenReady();
    }

    @Override
    public void onSurfaceTextureSizeChanged(SurfaceTexture changed, int width, int height) {
        place();
    }

    @Override
    public boolean onSurfaceTextureDestroyed(SurfaceTexture destroyed) {
        stop();
        texture = null;
        // The enhancer draws into it until the session's thread has closed it: released there, after that, and not here.
        handler.post(destroyed::release);
        return false;
    }

    @Override
    public void onSurfaceTextureUpdated(SurfaceTexture updated) {}

    @Override
    public void onDisplayAdded(int display) {}

    @Override
    public void onDisplayRemoved(int display) {}

    @Override
    public void onDisplayChanged(int display) {
        place(); // a half turn makes no new activity
    }

    /** Turns the frame upright and fits it into the view, which by itself would stretch it to its own size. */
    private void place() {
        Display display = picture.getDisplay();
        if (frame == null || display == null) return;
        int degrees = (sensorOrientation - degreesOf(display.getRotation()) + 360) % 360;
        boolean onItsSide = degrees % 180 != 0;
        float turnedWidth = onItsSide ? frame.getHeight() : frame.getWidth();
        float turnedHeight = onItsSide ? frame.getWidth() : frame.getHeight();
        float width = picture.getWidth();
        float height = picture.getHeight();
        float scale = Math.min(width / turnedWidth, height / turnedHeight);
        Matrix matrix = new Matrix();
        matrix.setScale(scale * frame.getWidth() / width, scale * frame.getHeight() / height, width / 2, height / 2);
        matrix.postRotate(degrees, width / 2, height / 2);
        picture.setTransform(matrix);
    }

    private static int degreesOf(int rotation) {
        switch (rotation) {
            case Surface.ROTATION_90:
                return 90;
            case Surface.ROTATION_180:
                return 180;
            case Surface.ROTATION_270:
                return 270;
            default:
                return 0;
        }
    }
}
