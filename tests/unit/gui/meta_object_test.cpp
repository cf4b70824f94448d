// What the window offers to the toolkit by name.

#include <QMetaMethod>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

struct Method {
    QMetaMethod::MethodType kind;
    const char* signature;
    const char* result;
    QList<QByteArray> parameters;
};

const QList<QByteArray> QUESTION = {"icon", "title", "message", "buttons"};

const QList<Method> METHODS = {
    {QMetaMethod::Signal, "showMessage(QString)", "void", {"theMessage"}},
    {QMetaMethod::Signal,
     "showQuestion(QMessageBox::Icon,QString,QString,QMessageBox::StandardButtons)", "int",
     QUESTION},
    {QMetaMethod::Signal, "setClientStatus(QString)", "void", {"theMessage"}},
    {QMetaMethod::Slot, "handlePAVButtonClicked()", "void", {}},
    {QMetaMethod::Slot, "handleTimerTimeout()", "void", {}},
    {QMetaMethod::Slot, "handleShowMessage(QString)", "void", {"message"}},
    {QMetaMethod::Slot,
     "handleShowQuestion(QMessageBox::Icon,QString,QString,QMessageBox::StandardButtons)", "int",
     QUESTION},
    {QMetaMethod::Slot, "handleSetClientStatus(QString)", "void", {"message"}},
};

TEST(MetaObject, HasExactlyItsEightPublicMethods) {
    const QMetaObject& meta = VelantrixServer::staticMetaObject;
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), METHODS.size());
    for (int i = 0; i < METHODS.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(method.methodType(), METHODS[i].kind) << i;
        EXPECT_EQ(method.methodSignature(), METHODS[i].signature);
        EXPECT_STREQ(method.typeName(), METHODS[i].result) << i;
        EXPECT_EQ(method.parameterNames(), METHODS[i].parameters) << i;
        EXPECT_EQ(method.access(), QMetaMethod::Public) << i;
    }
}

TEST(MetaObject, HasNothingElse) {
    const QMetaObject& meta = VelantrixServer::staticMetaObject;
    EXPECT_STREQ(meta.className(), "VelantrixServer");
    EXPECT_EQ(meta.superClass(), &QMainWindow::staticMetaObject);
    EXPECT_EQ(meta.propertyCount(), meta.propertyOffset());
    EXPECT_EQ(meta.enumeratorCount(), meta.enumeratorOffset());
    EXPECT_EQ(meta.classInfoCount(), meta.classInfoOffset());
}

TEST(MetaObject, CastByNameFindsTheWindowAndTheCore) {
    VelantrixServer window(nullptr);
    EXPECT_EQ(window.qt_metacast("VelantrixServer"), &window);
    EXPECT_EQ(window.qt_metacast("VelantrixServerNoGUI"),
              static_cast<VelantrixServerNoGUI*>(&window));
    EXPECT_NE(window.qt_metacast("VelantrixServerNoGUI"), static_cast<void*>(&window));
    EXPECT_EQ(window.qt_metacast("QMainWindow"), static_cast<QMainWindow*>(&window));
    EXPECT_EQ(window.qt_metacast("QDialog"), nullptr);
}

}  // namespace
