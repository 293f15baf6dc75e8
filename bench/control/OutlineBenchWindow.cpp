// A GTK 3 window of about COUNT accessible elements for the outline benchmark: a toggle button
// at the top that counts its clicks in its label ("Count 0", "Count 1", …), over a scrolled
// area of rows in nested boxes (columns of sections of ten rows; each row a label, a button, a
// check box, a text field and a second label). The window fills the screen and its controls are
// compact, so that most of them show. It prints "window 0x…" (its X window) once it is first
// drawn, with the rows it holds.
//
//   pavix-bench-outline-window COUNT
#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kMinimum = 40, kMaximum = 20000;
constexpr int kRowsPerSection = 10, kMaxColumns = 6;
// The frame, its box, the toggle button, the scrolled window with its two scroll bars, its
// viewport and the box of the columns.
constexpr int kFixedElements = 8;
constexpr int kElementsPerRow = 6;  // the row's box and its five controls

struct Layout {
    int rows = 0, sections = 0, columns = 0;

    int elements() const { return kFixedElements + columns + sections + rows * kElementsPerRow; }
};

Layout layoutFor(int rows) {
    Layout layout;
    layout.rows = rows;
    layout.sections = (rows + kRowsPerSection - 1) / kRowsPerSection;
    layout.columns = std::min(layout.sections, kMaxColumns);
    return layout;
}

// The most rows whose elements do not exceed `count`.
Layout layoutOf(int count) {
    int rows = 1;
    while (layoutFor(rows + 1).elements() <= count) {
        ++rows;
    }
    return layoutFor(rows);
}

GtkWidget* row(int n) {
    const auto number = std::to_string(n);
    auto* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 3);
    gtk_box_pack_start(GTK_BOX(box), gtk_label_new(("Item " + number).c_str()), FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), gtk_button_new_with_label(("Open " + number).c_str()), FALSE,
                       FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), gtk_check_button_new_with_label(("Pick " + number).c_str()),
                       FALSE, FALSE, 0);
    auto* entry = gtk_entry_new();
    gtk_entry_set_width_chars(GTK_ENTRY(entry), 4);
    gtk_entry_set_text(GTK_ENTRY(entry), number.c_str());
    atk_object_set_name(gtk_widget_get_accessible(entry), ("Field " + number).c_str());
    gtk_box_pack_start(GTK_BOX(box), entry, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(box), gtk_label_new(("#" + number).c_str()), FALSE, FALSE, 0);
    return box;
}

GtkWidget* grid(const Layout& layout) {
    auto* columns = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
    GtkWidget* column[kMaxColumns] = {};
    for (int c = 0; c < layout.columns; ++c) {
        column[c] = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
        gtk_box_pack_start(GTK_BOX(columns), column[c], FALSE, FALSE, 0);
    }
    // Sections go round the columns, so that the columns grow evenly from the top.
    for (int s = 0; s < layout.sections; ++s) {
        auto* section = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
        for (int r = s * kRowsPerSection; r < std::min(layout.rows, (s + 1) * kRowsPerSection);
             ++r) {
            gtk_box_pack_start(GTK_BOX(section), row(r + 1), FALSE, FALSE, 0);
        }
        gtk_box_pack_start(GTK_BOX(column[s % layout.columns]), section, FALSE, FALSE, 0);
    }
    return columns;
}

// Small paddings, so that many controls fit on the screen.
void compactStyle() {
    auto* css = gtk_css_provider_new();
    gtk_css_provider_load_from_data(css,
                                    "button, entry { padding: 0 3px; min-height: 18px; }"
                                    "checkbutton { padding: 0; }"
                                    "label { padding: 0; }",
                                    -1, nullptr);
    gtk_style_context_add_provider_for_screen(gdk_screen_get_default(), GTK_STYLE_PROVIDER(css),
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
    g_object_unref(css);
}

void onToggled(GtkToggleButton* button, gpointer) {
    static int clicks = 0;
    gtk_button_set_label(GTK_BUTTON(button), ("Count " + std::to_string(++clicks)).c_str());
}

gboolean onFirstDraw(GtkWidget* window, cairo_t*, gpointer rows) {
    g_signal_handlers_disconnect_by_func(window, reinterpret_cast<gpointer>(onFirstDraw), rows);
    std::printf("window 0x%lx rows %d\n",
                static_cast<unsigned long>(gdk_x11_window_get_xid(gtk_widget_get_window(window))),
                GPOINTER_TO_INT(rows));
    std::fflush(stdout);
    return FALSE;
}

}  // namespace

int main(int argc, char** argv) {
    // The window goes with the benchmark that started it.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    char* end = nullptr;
    const long count = argc == 2 ? std::strtol(argv[1], &end, 10) : 0;
    if (argc != 2 || !end || *end != '\0' || count < kMinimum || count > kMaximum) {
        std::fprintf(stderr,
                     "usage: %s COUNT\n  COUNT: the accessible elements of the window, a whole "
                     "number from %d to %d\n",
                     argv[0], kMinimum, kMaximum);
        return 2;
    }
    gtk_init(&argc, &argv);
    compactStyle();
    const auto layout = layoutOf(static_cast<int>(count));

    auto* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(window), ("Outline bench " + std::to_string(count)).c_str());
    gtk_window_set_default_size(GTK_WINDOW(window), 1900, 1040);
    gtk_window_maximize(GTK_WINDOW(window));
    g_signal_connect(window, "destroy", G_CALLBACK(gtk_main_quit), nullptr);

    auto* toggle = gtk_toggle_button_new_with_label("Count 0");
    gtk_widget_set_halign(toggle, GTK_ALIGN_START);
    g_signal_connect(toggle, "toggled", G_CALLBACK(onToggled), nullptr);

    auto* scrolled = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_container_add(GTK_CONTAINER(scrolled), grid(layout));

    auto* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    gtk_box_pack_start(GTK_BOX(column), toggle, FALSE, FALSE, 0);
    gtk_box_pack_start(GTK_BOX(column), scrolled, TRUE, TRUE, 0);
    gtk_container_add(GTK_CONTAINER(window), column);
    g_signal_connect_after(window, "draw", G_CALLBACK(onFirstDraw), GINT_TO_POINTER(layout.rows));
    gtk_widget_show_all(window);
    gtk_main();
    return 0;
}
