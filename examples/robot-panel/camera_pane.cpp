#include "camera_pane.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMutexLocker>
#include <QPixmap>

#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <utility>

namespace panel {

namespace {

const int k_viewWidth = 320;
const int k_viewHeight = 240;

} // namespace

CameraPane::CameraPane(QWidget *parent) : Pane(tr("Camera"), parent)
{
    setObjectName(QStringLiteral("cameraPane"));
    m_resolution = new QComboBox(this);
    m_resolution->setObjectName(QStringLiteral("cameraResolution"));
    // The combo box's index is the robot's resolution index.
    for (int index = 0; index <= RK::k_maxVideoResolution; ++index)
        m_resolution->addItem(QStringLiteral("%1x%2")
                                  .arg(RK::videoImageWidth(index))
                                  .arg(RK::videoImageHeight(index)));
    m_resolution->setCurrentIndex(2);
    m_period = new QSpinBox(this);
    m_period->setObjectName(QStringLiteral("cameraPeriod"));
    m_period->setRange(10, 1000);
    m_period->setValue(50);
    m_period->setSuffix(QStringLiteral(" ms"));
    m_button = new QPushButton(tr("Start"), this);
    m_button->setObjectName(QStringLiteral("cameraButton"));
    m_button->setEnabled(false);
    m_view = new QLabel(this);
    m_view->setObjectName(QStringLiteral("cameraView"));
    m_view->setFixedSize(k_viewWidth, k_viewHeight);
    m_view->setAlignment(Qt::AlignCenter);
    m_view->setStyleSheet(QStringLiteral("background: #202020; color: #a0a0a0"));
    m_view->setText(tr("no image"));
    m_info = new QLabel(tr("off"), this);
    m_info->setObjectName(QStringLiteral("cameraInfo"));

    auto *controls = new QHBoxLayout;
    controls->addWidget(m_resolution);
    controls->addWidget(m_period);
    controls->addWidget(m_button);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(controls);
    layout->addWidget(m_view);
    layout->addWidget(m_info);

    connect(m_button, &QPushButton::clicked, this, [this] { setOn(!m_on); });
    // A new resolution or period takes a fresh subscription.
    connect(m_resolution, qOverload<int>(&QComboBox::currentIndexChanged), this, [this] {
        if (m_running) {
            stop();
            start();
        }
    });
    connect(m_period, qOverload<int>(&QSpinBox::valueChanged), this, [this](int period) {
        if (m_video)
            m_video->setPeriod(period);
    });
}

CameraPane::~CameraPane() = default;

void CameraPane::attach(RK::ConnectionManager &manager)
{
    m_video = manager.videoDeviceInterface();
    m_button->setEnabled(bool(m_video));
    if (!m_video) {
        m_info->setText(tr("the robot has no camera"));
        return;
    }
    // `this` as the context: the interface emits on threads of the library,
    // and the context makes each call a queued one on the GUI thread.
    connect(m_video.get(), &RK::VideoDeviceInterface::imageReceived, this,
            [this](boost::shared_ptr<RK::ProtectedBuffer> buffer, int width, int height,
                   boost::shared_ptr<VX::VXValue>) { onImage(buffer, width, height); });
    // A refused subscription comes as errorOccurred and acquisitionError
    // both; a failed poll only as acquisitionError.
    relayErrors(m_video.get());
    connect(m_video.get(), &RK::VideoDeviceInterface::acquisitionError, this,
            [this](RK::VideoAcquisitionError code) {
                m_running = false;
                if (code == RK::VideoErrorImageRetrieval)
                    fail(QStringLiteral("startVideo"), RK::ErrorCode::RobotFailed,
                         tr("The camera stopped"), tr("an image could not be retrieved"));
                showInfo();
            });
    if (m_on)
        start();
}

void CameraPane::detach()
{
    if (m_video)
        disconnect(m_video.get(), nullptr, this, nullptr);
    m_video.reset();
    m_running = false;
    m_button->setEnabled(false);
    showInfo();
}

void CameraPane::setOn(bool on)
{
    m_on = on;
    m_button->setText(on ? tr("Stop") : tr("Start"));
    if (on)
        start();
    else
        stop();
    showInfo();
}

void CameraPane::setResolution(int index)
{
    m_resolution->setCurrentIndex(index);
}

void CameraPane::start()
{
    if (!m_video || m_running)
        return;
    const int resolution = m_resolution->currentIndex();
    m_one = RK::makeProtectedBuffer(RK::videoBufferSize(resolution));
    m_two = RK::makeProtectedBuffer(RK::videoBufferSize(resolution));
    m_images = 0;
    m_windowImages = 0;
    m_rate = 0;
    m_window.start();
    m_video->startVideo(m_period->value(), resolution, m_one, m_two);
    m_running = true;
}

void CameraPane::stop()
{
    if (m_video && m_running)
        m_video->stopVideo();
    m_running = false;
}

void CameraPane::onImage(const boost::shared_ptr<RK::ProtectedBuffer> &buffer, int width,
                         int height)
{
    if (!m_running || !buffer)
        return;
    {
        // Scaled down while the buffer is held: the view needs a quarter of
        // VGA at most, and the video thread gets the buffer back sooner
        // than after a full copy.
        QMutexLocker lock(&buffer->mutex);
        if (!buffer->data || buffer->size < std::size_t(width) * height * 4)
            return;
        const QImage frame(buffer->data, width, height, width * 4, QImage::Format_RGB32);
        QImage scaled
            = frame.scaled(k_viewWidth, k_viewHeight, Qt::KeepAspectRatio, Qt::FastTransformation);
        // At the view's own size scaled() hands back the frame itself, still
        // on the buffer's memory, which goes with the next start: copy it.
        m_last = scaled.constBits() == frame.constBits() ? frame.copy() : std::move(scaled);
    }
    m_view->setPixmap(QPixmap::fromImage(m_last));
    ++m_images;
    ++m_windowImages;
    m_width = width;
    m_height = height;
    if (m_window.elapsed() >= 1000) {
        m_rate = m_windowImages * 1000.0 / m_window.restart();
        m_windowImages = 0;
        showInfo();
    } else if (m_images == 1) {
        showInfo();
    }
}

void CameraPane::showInfo()
{
    if (!m_running) {
        m_info->setText(m_on && !m_video ? tr("waiting for the robot") : tr("off"));
        return;
    }
    if (m_images == 0) {
        m_info->setText(tr("starting"));
        return;
    }
    // The rate is known after the first second.
    const QString rate = m_rate > 0 ? tr("%1 images/s").arg(m_rate, 0, 'f', 1)
                                    : tr("%1 image(s) so far").arg(m_images);
    m_info->setText(tr("%1x%2, %3, %4 skipped")
                        .arg(m_width)
                        .arg(m_height)
                        .arg(rate)
                        .arg(m_video ? m_video->skippedImages() : 0));
}

} // namespace panel
