// An app whose native code mixes with kesaudio. Put kesaudio.aar (android/make_aar.sh, builds with bundled engines, for
// both ABIs) into libs/, then: gradle assembleDebug
plugins {
    id("com.android.application") version "8.7.3"
    id("org.jetbrains.kotlin.android") version "2.0.21"
}

android {
    namespace = "kesaudio.example"
    compileSdk = 35
    defaultConfig {
        applicationId = "kesaudio.example"
        minSdk = 26 // no lower than the AAR's
        targetSdk = 35
        ndk { abiFilters += listOf("arm64-v8a", "x86_64") } // the AAR has no others
    }
    buildFeatures { prefab = true }
    externalNativeBuild { cmake { path = file("src/main/cpp/CMakeLists.txt") } }
    compileOptions {
        sourceCompatibility = JavaVersion.VERSION_17
        targetCompatibility = JavaVersion.VERSION_17
    }
    kotlinOptions { jvmTarget = "17" }
}

dependencies { implementation(files("libs/kesaudio.aar")) }
