#pragma once

#include "pane.h"

#include <connection/video_device_interface.h>

#include <QElapsedTimer>
#include <QImage>

#include <boost/shared_ptr.hpp>

class QComboBox;
class QLabel;
class QPushButton;
class QSpinBox;

namespace panel {

// The robot's camera, live, with its rate and resolution. The two pixel
// buffers belong to this pane; the video thread writes into the one this
// pane does not hold. Left on, the camera starts again after a reconnection.
class CameraPane : public Pane
{
    Q_OBJECT

public:
    explicit CameraPane(QWidget *parent = nullptr);
    ~CameraPane() override;

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    bool isOn() const { return m_on; }
    void setOn(bool on);
    // Resolution index: 0 160x120, 1 320x240, 2 640x480, 3 1280x960.
    void setResolution(int index);
    // Images received since the camera was last switched on.
    int imagesReceived() const { return m_images; }
    // The last image, as shown (scaled to the view).
    QImage lastImage() const { return m_last; }

private:
    void start();
    void stop();
    void onImage(const boost::shared_ptr<RK::ProtectedBuffer> &buffer, int width, int height);
    void showInfo();

    boost::shared_ptr<RK::VideoDeviceInterface> m_video;
    boost::shared_ptr<RK::ProtectedBuffer> m_one;
    boost::shared_ptr<RK::ProtectedBuffer> m_two;
    bool m_on = false;
    bool m_running = false;
    int m_images = 0;
    int m_width = 0;
    int m_height = 0;
    // Images in the current one-second window, for the rate.
    int m_windowImages = 0;
    double m_rate = 0;
    QElapsedTimer m_window;
    QImage m_last;

    QComboBox *m_resolution;
    QSpinBox *m_period;
    QPushButton *m_button;
    QLabel *m_view;
    QLabel *m_info;
};

} // namespace panel
