// A StatusNotifierWatcher and host of our own on the session bus, and a client of the items that
// register with it, for tests of the tray as a StatusNotifierItem:
//   test_status_watcher serve          owns the watcher and a host; prints "registered <item>"
//   test_status_watcher item           the last item's IconPixmap and ToolTip (its title)
//   test_status_watcher menu           its dbusmenu layout, one line per entry:
//                                      depth|type|enabled|visible|toggle-type|toggle-state|label
//   test_status_watcher click LABEL    sends Event(id, "clicked") to the entry with that label
//   test_status_watcher activate X Y   calls Activate(x, y) on the item
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QStringList>

#include <cstdio>

namespace {

const QString kWatcher = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kItem = QStringLiteral("org.kde.StatusNotifierItem");
const QString kMenu = QStringLiteral("com.canonical.dbusmenu");

void print(const QString& line) {
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

int fail(const QString& why) {
    std::fprintf(stderr, "test_status_watcher: %s\n", why.toUtf8().constData());
    return 1;
}

// Just what Qt's tray asks of a watcher: that a host is there, and to register its item.
class Watcher final : public QDBusVirtualObject {
public:
    QString introspect(const QString&) const override {
        return QStringLiteral(
            "<interface name=\"org.kde.StatusNotifierWatcher\">"
            "<method name=\"RegisterStatusNotifierItem\"><arg type=\"s\" "
            "direction=\"in\"/></method>"
            "<property name=\"RegisteredStatusNotifierItems\" type=\"as\" access=\"read\"/>"
            "<property name=\"IsStatusNotifierHostRegistered\" type=\"b\" access=\"read\"/>"
            "</interface>");
    }

    bool handleMessage(const QDBusMessage& m, const QDBusConnection& bus) override {
        if (m.member() == QLatin1String("Get")) {
            const bool items =
                m.arguments().value(1) == QStringLiteral("RegisteredStatusNotifierItems");
            const QVariant value = items ? QVariant(items_) : QVariant(true);
            return bus.send(m.createReply(QVariant::fromValue(QDBusVariant(value))));
        }
        if (m.member() != QLatin1String("RegisterStatusNotifierItem")) return false;
        // A bus name (the item at the usual path), or a path on the sender.
        const QString arg = m.arguments().value(0).toString();
        const QString item = arg.startsWith(QLatin1Char('/'))
                                 ? m.service() + arg
                                 : arg + QStringLiteral("/StatusNotifierItem");
        items_ << item;
        print(QStringLiteral("registered ") + item);
        return bus.send(m.createReply());
    }

private:
    QStringList items_;
};

QDBusMessage call(const QString& service, const QString& path, const QString& interface,
                  const QString& member, const QVariantList& args) {
    QDBusMessage m = QDBusMessage::createMethodCall(service, path, interface, member);
    m.setArguments(args);
    return QDBusConnection::sessionBus().call(m, QDBus::Block, 10000);
}

QVariant property(const QString& service, const QString& path, const QString& interface,
                  const QString& name) {
    const QDBusMessage reply =
        call(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
             QStringLiteral("Get"), {interface, name});
    return reply.arguments().value(0).value<QDBusVariant>().variant();
}

// "WxH:<checksum of the pixels>" for each image of an a(iiay) value.
QString describePixmaps(const QDBusArgument& a) {
    QStringList out;
    a.beginArray();
    while (!a.atEnd()) {
        int w = 0, h = 0;
        QByteArray argb;
        a.beginStructure();
        a >> w >> h >> argb;
        a.endStructure();
        out << QStringLiteral("%1x%2:%3").arg(w).arg(h).arg(qChecksum(argb));
    }
    a.endArray();
    return out.join(QLatin1Char(' '));
}

struct Entry {
    int depth = 0;
    int id = 0;
    QVariantMap props;
};

// A layout node (ia{sv}av) and its children, depth first; the root (depth -1) is left out.
void walk(const QDBusArgument& a, int depth, QList<Entry>& out) {
    Entry e{depth, 0, {}};
    a.beginStructure();
    a >> e.id >> e.props;
    if (depth >= 0) out << e;
    a.beginArray();
    while (!a.atEnd()) {
        QDBusVariant child;
        a >> child;
        walk(child.variant().value<QDBusArgument>(), depth + 1, out);
    }
    a.endArray();
    a.endStructure();
}

QString describe(const Entry& e) {
    const auto get = [&](const char* key, const QVariant& otherwise) {
        return e.props.value(QLatin1String(key), otherwise).toString();
    };
    return QStringList{QString::number(e.depth),
                       get("type", QStringLiteral("standard")),
                       QString::number(e.props.value(QStringLiteral("enabled"), true).toInt()),
                       QString::number(e.props.value(QStringLiteral("visible"), true).toInt()),
                       get("toggle-type", QString()),
                       get("toggle-state", -1),
                       get("label", {})}
        .join(QLatin1Char('|'));
}

int run(const QStringList& args) {
    auto bus = QDBusConnection::sessionBus();
    const QString command = args.value(1);
    if (command == QLatin1String("serve")) {
        static Watcher watcher;
        if (!bus.registerVirtualObject(QStringLiteral("/StatusNotifierWatcher"), &watcher) ||
            !bus.registerService(kWatcher) ||
            !bus.registerService(QStringLiteral("org.kde.StatusNotifierHost-%1").arg(getpid()))) {
            return fail(bus.lastError().message());
        }
        print(QStringLiteral("watching"));
        return QCoreApplication::exec();
    }
    const QStringList items = property(kWatcher, QStringLiteral("/StatusNotifierWatcher"), kWatcher,
                                       QStringLiteral("RegisteredStatusNotifierItems"))
                                  .toStringList();
    if (items.isEmpty()) return fail(QStringLiteral("no item registered"));
    const QString service = items.back().section(QLatin1Char('/'), 0, 0);
    const QString path = items.back().mid(service.size());
    const auto item = [&](const char* name) {
        return property(service, path, kItem, QLatin1String(name));
    };
    if (command == QLatin1String("item")) {
        const QDBusArgument tip = item("ToolTip").value<QDBusArgument>();
        QString icon, title;
        tip.beginStructure();
        tip >> icon;
        describePixmaps(tip);
        tip >> title;
        print(QStringLiteral("IconPixmap ") +
              describePixmaps(item("IconPixmap").value<QDBusArgument>()));
        print(QStringLiteral("ToolTip ") + title);
        return 0;
    }
    QDBusMessage reply;
    if (command == QLatin1String("activate")) {
        reply = call(service, path, kItem, QStringLiteral("Activate"),
                     {args.value(2).toInt(), args.value(3).toInt()});
        return reply.type() == QDBusMessage::ReplyMessage ? 0 : fail(reply.errorMessage());
    }
    const QString menu = item("Menu").value<QDBusObjectPath>().path();
    reply = call(service, menu, kMenu, QStringLiteral("GetLayout"), {0, -1, QStringList()});
    if (reply.arguments().size() != 2) return fail(QStringLiteral("no menu layout"));
    QList<Entry> entries;
    walk(reply.arguments().at(1).value<QDBusArgument>(), -1, entries);
    for (const Entry& e : entries) {
        if (command == QLatin1String("menu")) {
            print(describe(e));
        } else if (e.props.value(QStringLiteral("label")).toString() == args.value(2)) {
            reply =
                call(service, menu, kMenu, QStringLiteral("Event"),
                     {e.id, QStringLiteral("clicked"), QVariant::fromValue(QDBusVariant(0)), 0U});
            return reply.type() == QDBusMessage::ReplyMessage ? 0 : fail(reply.errorMessage());
        }
    }
    return command == QLatin1String("menu") ? 0 : fail(QStringLiteral("no such entry"));
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    return run(QCoreApplication::arguments());
}
