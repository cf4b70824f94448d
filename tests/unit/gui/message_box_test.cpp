// Boxes that worker threads ask for.

#include "gui/message_box.h"

#include <QKeyEvent>
#include <QPointer>
#include <QPushButton>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

class Boxes : public ::testing::Test {
  protected:
    /// Runs `job` on a worker and the event loop until it has returned.
    void serve(const std::function<void()>& job) {
        const Worker worker(job);
        ASSERT_TRUE(spinUntil([&worker] { return worker.done(); }));
    }

    /// Asks for a message, whose one box `answer` closes.
    void tell(const char* message, std::function<void(QMessageBox&)> answer) {
        const BoxAnswerer answerer(std::move(answer));
        serve([this, message] { window.emitShowMessage(message); });
        EXPECT_EQ(answerer.count(), 1);
    }

    /// Asks a question, whose one box `answer` closes.
    int ask(QMessageBox::StandardButtons buttons, std::function<void(QMessageBox&)> answer) {
        const BoxAnswerer answerer(std::move(answer));
        const int result = ask(buttons);
        EXPECT_EQ(answerer.count(), 1);
        return result;
    }

    int ask(QMessageBox::StandardButtons buttons) {
        int result = -1;
        serve([this, &result, buttons] {
            result = window.showQuestion(QMessageBox::Information, "The title", "The question?",
                                         buttons);
        });
        return result;
    }

    VelantrixServer window{nullptr};
};

void press(QMessageBox& box, Qt::Key key) {
    QWidget* const target = box.focusWidget() != nullptr ? box.focusWidget() : &box;
    QKeyEvent down(QEvent::KeyPress, key, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &down);
    QKeyEvent up(QEvent::KeyRelease, key, Qt::NoModifier);
    QCoreApplication::sendEvent(target, &up);
}

TEST_F(Boxes, WorkerGoesOnOnlyAfterItsBoxIsClosed) {
    std::atomic<bool> cameBack{false};
    bool cameBackEarly = false;
    QPointer<QMessageBox> shown;
    const BoxAnswerer answerer([&](QMessageBox& box) {
        QThread::msleep(50);
        cameBackEarly = cameBack.load();
        shown = &box;
        box.accept();
    });
    serve([&] {
        window.emitShowMessage("something");
        cameBack.store(true);
    });
    EXPECT_EQ(answerer.count(), 1);
    EXPECT_FALSE(cameBackEarly);
    EXPECT_TRUE(shown.isNull()) << "the box must not outlive its answer";
}

TEST_F(Boxes, MessageIsAPlainBoxWithOkOnly) {
    tell("something", [](QMessageBox& box) {
        EXPECT_EQ(box.text(), "something");
        EXPECT_EQ(box.windowTitle(), "");
        EXPECT_EQ(box.icon(), QMessageBox::NoIcon);
        EXPECT_EQ(box.buttons().size(), 1);
        EXPECT_EQ(box.standardButtons(), QMessageBox::Ok);
        EXPECT_EQ(box.parent(), nullptr);
        EXPECT_EQ(box.windowModality(), Qt::ApplicationModal);
        box.button(QMessageBox::Ok)->click();
    });
}

TEST_F(Boxes, MessageIsReadAsLatin1) {
    tell("\xC3\xBC\xFF", [](QMessageBox& box) {
        EXPECT_EQ(box.text(), QString::fromUtf16(u"\u00C3\u00BC\u00FF"));
        box.accept();
    });
}

TEST_F(Boxes, NullMessageGivesAnEmptyBox) {
    tell(nullptr, [](QMessageBox& box) {
        EXPECT_EQ(box.text(), "");
        box.accept();
    });
}

TEST_F(Boxes, QuestionShowsWhatItWasGiven) {
    const auto answer = [](QMessageBox& box) {
        EXPECT_EQ(box.windowTitle(), "The title");
        EXPECT_EQ(box.text(), "The question?");
        EXPECT_EQ(box.icon(), QMessageBox::Information);
        EXPECT_EQ(box.standardButtons(), QMessageBox::Yes | QMessageBox::No);
        EXPECT_EQ(box.parent(), nullptr);
        EXPECT_TRUE(box.windowFlags().testFlag(Qt::MSWindowsFixedSizeDialogHint));
        EXPECT_EQ(box.windowType(), Qt::Dialog);
        EXPECT_EQ(box.defaultButton(), box.button(QMessageBox::Yes));
        box.button(QMessageBox::No)->click();
    };
    EXPECT_EQ(ask(QMessageBox::Yes | QMessageBox::No, answer), QMessageBox::No);
}

TEST_F(Boxes, EnterAnswersYes) {
    const auto answer = [](QMessageBox& box) { press(box, Qt::Key_Return); };
    EXPECT_EQ(ask(QMessageBox::No | QMessageBox::Yes, answer), QMessageBox::Yes);
}

TEST_F(Boxes, EscapeAnswersNo) {
    const auto answer = [](QMessageBox& box) { press(box, Qt::Key_Escape); };
    EXPECT_EQ(ask(QMessageBox::Yes | QMessageBox::No, answer), QMessageBox::No);
}

TEST_F(Boxes, QuestionWithoutYesKeepsTheToolkitsDefault) {
    const auto answer = [](QMessageBox& box) {
        EXPECT_EQ(box.defaultButton(), nullptr);
        box.button(QMessageBox::Cancel)->click();
    };
    EXPECT_EQ(ask(QMessageBox::Ok | QMessageBox::Cancel, answer), QMessageBox::Cancel);
}

TEST_F(Boxes, QuestionNobodyListensToGivesZero) {
    window.disconnect(
        SIGNAL(showQuestion(QMessageBox::Icon, QString, QString, QMessageBox::StandardButtons)));
    EXPECT_EQ(ask(QMessageBox::Yes), 0);
}

TEST_F(Boxes, TwoWorkersGetOneBoxEach) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.accept(); });
    const Worker first([this] { window.emitShowMessage("one"); });
    const Worker second([this] { window.emitShowMessage("two"); });
    EXPECT_TRUE(spinUntil([&] { return first.done() && second.done(); }));
    EXPECT_EQ(answerer.count(), 2);
}

TEST_F(Boxes, StatusLineIsServedWhileABoxIsOpen) {
    std::atomic<bool> shown{false};
    const BoxAnswerer answerer([&shown](QMessageBox& box) {
        if (shown.load()) {
            box.accept();
        }
    });
    const Worker message([this] { window.emitShowMessage("wait"); });
    const Worker client([this, &shown] {
        window.SetClientStatus(1, "", false);
        shown.store(true);
    });
    EXPECT_TRUE(spinUntil([&] { return message.done() && client.done(); }));
}

constexpr int STAYED = 42;

/// Runs the program's event loop, in it `job` on a worker. Returns STAYED when the loop still ran a
/// little after the job was done, else the loop's result.
int runProgramWith(const std::function<void()>& job) {
    const Worker worker(job);
    int ticksAfterTheJob = 0;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &watch, [&] {
        ticksAfterTheJob += worker.done() ? 1 : 0;
        if (ticksAfterTheJob == 10) {
            QCoreApplication::exit(STAYED);
        }
    });
    watch.start(10);
    return QApplication::exec();
}

TEST_F(Boxes, ClosingABoxOverAHiddenWindowDoesNotEndTheProgram) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.close(); });
    ASSERT_FALSE(window.isVisible());
    EXPECT_EQ(runProgramWith([this] { window.emitShowMessage("early"); }), STAYED);
    EXPECT_EQ(runProgramWith([this] {
                  window.showQuestion(QMessageBox::Information, "", "", QMessageBox::Yes);
              }),
              STAYED);
    EXPECT_EQ(answerer.count(), 2);
}

TEST_F(Boxes, ClosingABoxOverAMinimisedWindowDoesNotEndTheProgram) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.close(); });
    window.showMinimized();
    EXPECT_EQ(runProgramWith([this] { window.emitShowMessage("later"); }), STAYED);
    EXPECT_EQ(answerer.count(), 1);
}

TEST_F(Boxes, ClosingTheWindowEndsTheProgram) {
    window.show();
    QTimer::singleShot(10, &window, &QWidget::close);
    EXPECT_EQ(QApplication::exec(), 0);
}

TEST_F(Boxes, ClosingADirectBoxDoesNotEndTheProgram) {
    const BoxAnswerer answerer([](QMessageBox& box) { box.close(); });
    QTimer::singleShot(10, [] { AfxMessageBoxInternal("direct"); });
    EXPECT_EQ(runProgramWith([] { QThread::msleep(100); }), STAYED);
    EXPECT_EQ(answerer.count(), 1);
}

TEST(DirectBox, TextIsReadAsUtf8) {
    const BoxAnswerer answerer([](QMessageBox& box) {
        EXPECT_EQ(box.text(), QString::fromUtf16(u"\u00FC\uFFFD"));
        EXPECT_EQ(box.standardButtons(), QMessageBox::Ok);
        EXPECT_EQ(box.parent(), nullptr);
        box.accept();
    });
    AfxMessageBoxInternal("\xC3\xBC\xFF");
    EXPECT_EQ(answerer.count(), 1);
}

TEST(DirectBox, NullGivesAnEmptyBox) {
    const BoxAnswerer answerer([](QMessageBox& box) {
        EXPECT_EQ(box.text(), "");
        box.accept();
    });
    AfxMessageBoxInternal(nullptr);
    EXPECT_EQ(answerer.count(), 1);
}

}  // namespace
